#include "detect/LabelList.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace KorvLumetra {

namespace {

// Length of the UTF-8 sequence starting at s[i] (0 when it is not one):
// shortest form only, no surrogates, nothing above U+10FFFF.
std::size_t utf8Sequence(const std::string& s, std::size_t i) {
  const auto byte = [&](std::size_t k) { return k < s.size() ? static_cast<unsigned char>(s[k]) : 0u; };
  const unsigned c = byte(i);
  const auto tail = [&](std::size_t k) { return (byte(k) & 0xC0u) == 0x80u; };
  if (c < 0x80u) return 1;
  if (c >= 0xC2u && c <= 0xDFu) return tail(i + 1) ? 2 : 0;
  if (c >= 0xE0u && c <= 0xEFu) {
    const unsigned c1 = byte(i + 1);
    if ((c == 0xE0u && c1 < 0xA0u) || (c == 0xEDu && c1 > 0x9Fu)) return 0;
    return tail(i + 1) && tail(i + 2) ? 3 : 0;
  }
  if (c >= 0xF0u && c <= 0xF4u) {
    const unsigned c1 = byte(i + 1);
    if ((c == 0xF0u && c1 < 0x90u) || (c == 0xF4u && c1 > 0x8Fu)) return 0;
    return tail(i + 1) && tail(i + 2) && tail(i + 3) ? 4 : 0;
  }
  return 0;
}

bool isUtf8(const std::string& s) {
  for (std::size_t i = 0; i < s.size();) {
    const std::size_t n = utf8Sequence(s, i);
    if (n == 0) return false;
    i += n;
  }
  return true;
}

bool fail(const std::string& reason, std::vector<std::string>& labels, std::string& error) {
  labels.clear();
  error = reason;
  return false;
}

}  // namespace

bool readLabelList(const std::string& path, std::vector<std::string>& labels, std::string& error) {
  labels.clear();
  const std::string quoted = "'" + path + "'";
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) {
    return fail("cannot read label list " + quoted + ": " + std::strerror(errno), labels, error);
  }
  if (S_ISDIR(info.st_mode)) return fail("cannot read label list " + quoted + ": " + std::strerror(EISDIR), labels, error);
  // A pipe or a device could block or never end.
  if (!S_ISREG(info.st_mode)) return fail("cannot read label list " + quoted + ": not a regular file", labels, error);
  if (info.st_size > kMaxLabelListBytes) {
    return fail("label list " + quoted + " is " + std::to_string(info.st_size) + " bytes, more than the 1 MB allowed",
                labels, error);
  }
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return fail("cannot read label list " + quoted + ": " + std::strerror(errno), labels, error);
  // Up to one byte more than allowed, so that a file grown since stat() is still caught.
  std::string text;
  char chunk[4096];
  std::size_t got = 0;
  while (text.size() <= static_cast<std::size_t>(kMaxLabelListBytes) &&
         (got = std::fread(chunk, 1, sizeof(chunk), file)) > 0) {
    text.append(chunk, got);
  }
  const bool readError = std::ferror(file) != 0;
  std::fclose(file);
  if (readError) return fail("cannot read label list " + quoted + ": read error", labels, error);
  if (text.size() > static_cast<std::size_t>(kMaxLabelListBytes)) {
    return fail("label list " + quoted + " is more than the 1 MB allowed", labels, error);
  }

  std::size_t start = text.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
  for (int number = 1; start <= text.size(); ++number) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    const std::size_t last = line.find_last_not_of(" \t\r");
    line.erase(last == std::string::npos ? 0 : last + 1);
    if (line.empty() || line[0] == '#') continue;
    const std::string where = "label list " + quoted + " line " + std::to_string(number);
    if (line.find('\0') != std::string::npos) return fail(where + " holds a NUL byte", labels, error);
    if (!isUtf8(line)) return fail(where + " is not UTF-8", labels, error);
    labels.push_back(line);
  }
  if (labels.empty()) return fail("label list " + quoted + " has no class names", labels, error);
  error.clear();
  return true;
}

}  // namespace KorvLumetra
