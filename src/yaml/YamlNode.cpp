#include "yaml/YamlNode.h"

#include <sys/stat.h>

#include <cstddef>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <tuple>

namespace KorvTech {

namespace {

// One significant line of the document.
struct LineInfo {
  int32_t indent = 0;      // columns: a blank counts 1, a tab 2
  bool isSeqItem = false;  // a "- " item
  std::string key;         // empty for items
  std::string value;       // raw text after the key's colon or after "- "
};

// One level of the nesting stack: lines indented deeper than `indent` fill
// `node`. Nodes are map entries (or the root), which a std::map never moves.
struct Frame {
  int32_t indent;
  YamlNode* node;
};

// Inline sequences nested deeper than this stay scalar text, so that a line
// of brackets cannot exhaust the stack; real files nest two levels at most.
constexpr int kMaxInlineDepth = 64;

// Follows a left-to-right scan through quotes. A quote of one kind is plain
// text inside the other kind; quotes need not be balanced.
class QuoteScan {
 public:
  void feed(char c) {
    if (c == '\'' && !inDouble_) {
      inSingle_ = !inSingle_;
    } else if (c == '"' && !inSingle_) {
      inDouble_ = !inDouble_;
    }
  }
  bool outside() const { return !inSingle_ && !inDouble_; }

 private:
  bool inSingle_ = false;
  bool inDouble_ = false;
};

bool isBlank(char c) { return c == ' ' || c == '\t'; }

// "- x" or "-\tx": a dash followed by a blank or a tab.
bool startsWithItemDash(const std::string& text) {
  return text.size() >= 2 && text[0] == '-' && isBlank(text[1]);
}

std::string trimRight(const std::string& text) {
  std::size_t end = text.size();
  while (end > 0 && (text[end - 1] == ' ' || text[end - 1] == '\t' || text[end - 1] == '\r')) {
    --end;
  }
  return text.substr(0, end);
}

// Cuts the line at the first "#" outside quotes; no blank is needed before it.
std::string stripComment(const std::string& line) {
  QuoteScan quotes;
  for (std::size_t i = 0; i < line.size(); ++i) {
    quotes.feed(line[i]);
    if (line[i] == '#' && quotes.outside()) {
      return line.substr(0, i);
    }
  }
  return line;
}

int32_t indentOf(const std::string& line) {
  int32_t indent = 0;
  for (char c : line) {
    // Saturates instead of overflowing on absurdly long runs of white space.
    if (!isBlank(c) || indent > INT32_MAX - 2) {
      break;
    }
    indent += (c == '\t') ? 2 : 1;
  }
  return indent;
}

// Change of the bracket depth over a line, counting only brackets outside quotes.
int64_t bracketDelta(const std::string& text) {
  QuoteScan quotes;
  int64_t delta = 0;
  for (char c : text) {
    quotes.feed(c);
    if (!quotes.outside()) {
      continue;
    }
    if (c == '[') {
      ++delta;
    } else if (c == ']') {
      --delta;
    }
  }
  return delta;
}

// One significant line before continuation lines are joined.
struct RawLine {
  LineInfo info;
  std::string content;  // trimmed, comment cut
  bool directive = false;
  bool opensSequence = false;  // an inline sequence value whose brackets stay open
  int64_t delta = 0;
};

std::vector<LineInfo> readLines(const std::string& text) {
  std::vector<RawLine> raw;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      end = text.size();
    }
    const std::string cut = stripComment(text.substr(start, end - start));
    start = end + 1;

    RawLine line;
    line.content = YamlNode::trim(cut);
    if (line.content.empty()) {
      continue;
    }
    line.directive = line.content[0] == '%';
    line.delta = bracketDelta(line.content);
    LineInfo& info = line.info;
    info.indent = indentOf(cut);
    if (startsWithItemDash(line.content)) {
      info.isSeqItem = true;
      info.value = YamlNode::trimLeft(line.content.substr(1));
    } else {
      // A lone "-" lands here: a map line with an empty key and value "-".
      std::tie(info.key, info.value) = YamlNode::splitKeyValue(line.content);
    }
    line.opensSequence = !line.directive && line.delta > 0 && !info.value.empty() && info.value[0] == '[';
    raw.push_back(std::move(line));
  }

  // An inline sequence wrapped over several lines (as PyYAML writes long
  // lists) continues until its brackets close. closeAt[i] is the line where
  // the depth opened on line i is back to zero, found for every line in one
  // pass: pending openings have increasing thresholds, so a stack serves.
  constexpr std::size_t kNever = static_cast<std::size_t>(-1);
  std::vector<std::size_t> closeAt(raw.size(), kNever);
  std::vector<std::pair<std::size_t, int64_t>> pending;  // line, depth before it
  int64_t depth = 0;
  for (std::size_t j = 0; j < raw.size(); ++j) {
    const int64_t before = depth;
    depth += raw[j].delta;
    while (!pending.empty() && pending.back().second >= depth) {
      closeAt[pending.back().first] = j;
      pending.pop_back();
    }
    if (raw[j].opensSequence) {
      pending.emplace_back(j, before);
    }
  }

  std::vector<LineInfo> lines;
  for (std::size_t i = 0; i < raw.size(); ++i) {
    if (raw[i].directive) {
      continue;
    }
    LineInfo info = std::move(raw[i].info);
    // Brackets that never close leave the line as it is.
    if (raw[i].opensSequence && closeAt[i] != kNever) {
      const std::size_t last = closeAt[i];
      for (++i; i <= last; ++i) {
        info.value += ' ';
        info.value += raw[i].content;
      }
      --i;
    }
    lines.push_back(std::move(info));
  }
  return lines;
}

// Takes the text by value so that a nested sequence's text is released level
// by level instead of being held once per nesting level.
YamlNode parseValue(std::string text, int depth) {
  YamlNode node;
  std::string t = YamlNode::trim(text);
  text.clear();
  if (t.empty()) {
    return node;
  }
  if (t.size() >= 2 && t.front() == '[' && t.back() == ']' && depth < kMaxInlineDepth) {
    node.type = YamlNode::Sequence;
    std::vector<std::string> pieces = YamlNode::splitInlineSeq(t.substr(1, t.size() - 2));
    t.clear();
    node.seq.reserve(pieces.size());
    for (std::string& piece : pieces) {
      node.seq.push_back(parseValue(std::move(piece), depth + 1));
    }
    return node;
  }
  node.type = YamlNode::Scalar;
  const bool quoted = t.size() >= 2 && (t.front() == '"' || t.front() == '\'') && t.back() == t.front();
  node.scalar = quoted ? t.substr(1, t.size() - 2) : std::move(t);
  return node;
}

}  // namespace

std::string YamlNode::UnreadableReason(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) {
    return "does not exist";
  }
  if (S_ISDIR(info.st_mode)) {
    return "is a directory";
  }
  if (!S_ISREG(info.st_mode)) {
    return "is not a regular file";
  }
  if (info.st_size > kMaxDocumentBytes) {
    return "is larger than 1 MB (" + std::to_string(static_cast<long long>(info.st_size)) + " bytes)";
  }
  return std::string();
}

YamlNode YamlNode::LoadFile(const std::string& path) {
  YamlNode root;
  root.type = Map;
  // A directory opens as a stream but fails on the first read, with an
  // exception from the standard library: only regular files are read.
  struct stat info {};
  std::ifstream file;
  if (stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
    file.open(path, std::ios::in | std::ios::binary);
  }
  if (!file.is_open()) {
    std::fprintf(stderr, "[YamlNode] Cannot open file: %s\n", path.c_str());
    return root;
  }
  std::string text;
  try {
    text.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  } catch (const std::exception&) {
    std::fprintf(stderr, "[YamlNode] Cannot open file: %s\n", path.c_str());
    return root;
  }
  root.parse(text, path);
  return root;
}

void YamlNode::parse(const std::string& text, const std::string& /*source*/) {
  const std::vector<LineInfo> lines = readLines(text);

  // The root frame is never popped; its indent -1 is below every line's.
  std::vector<Frame> stack{{-1, this}};
  for (const LineInfo& line : lines) {
    if (line.isSeqItem) {
      // Strictly greater, so that items may stand at their parent key's
      // indentation ("key:" followed by "- a" at the same column).
      while (stack.size() > 1 && stack.back().indent > line.indent) {
        stack.pop_back();
      }
      YamlNode& parent = *stack.back().node;
      if (parent.type == Null) {
        parent.type = Sequence;
      }
      // Items get no frame: deeper lines under an item fill the node that
      // holds the sequence.
      parent.seq.push_back(parseScalarValue(line.value));
      continue;
    }

    while (stack.size() > 1 && stack.back().indent >= line.indent) {
      stack.pop_back();
    }
    YamlNode& parent = *stack.back().node;
    if (parent.type == Null) {
      parent.type = Map;
    }
    // A repeated key replaces the earlier entry wholesale, children included.
    // No frame points into the entry: the stack above `parent` is popped.
    YamlNode& entry = parent.map[line.key];
    entry = parseScalarValue(line.value);
    // Only an empty value opens a block; after "K: text" deeper lines fill the
    // enclosing node.
    if (entry.type == Null) {
      stack.push_back({line.indent, &entry});
    }
  }
}

YamlNode YamlNode::operator[](const std::string& key) const {
  if (type == Map) {
    const auto it = map.find(key);
    if (it != map.end()) {
      return it->second;
    }
  }
  return YamlNode();
}

std::string YamlNode::trimLeft(const std::string& text) {
  std::size_t begin = 0;
  while (begin < text.size() && isBlank(text[begin])) {
    ++begin;
  }
  return text.substr(begin);
}

std::string YamlNode::trim(const std::string& text) { return trimRight(trimLeft(text)); }

std::pair<std::string, std::string> YamlNode::splitKeyValue(const std::string& line) {
  std::string t = trimLeft(line);
  if (startsWithItemDash(t)) {
    t = trimLeft(t.substr(1));
  }
  QuoteScan quotes;
  std::ptrdiff_t depth = 0;
  for (std::size_t i = 0; i < t.size(); ++i) {
    const char c = t[i];
    quotes.feed(c);
    if (!quotes.outside()) {
      continue;
    }
    if (c == '[') {
      ++depth;
    } else if (c == ']') {
      --depth;
    } else if (c == ':' && depth == 0) {
      return {trimRight(t.substr(0, i)), trimLeft(t.substr(i + 1))};
    }
  }
  return {std::string(), t};
}

std::vector<std::string> YamlNode::splitInlineSeq(const std::string& inner) {
  std::vector<std::string> pieces;
  const auto appendPiece = [&pieces](const std::string& raw) {
    std::string piece = trim(raw);
    if (!piece.empty()) {
      pieces.push_back(std::move(piece));
    }
  };
  QuoteScan quotes;
  std::ptrdiff_t depth = 0;
  std::size_t start = 0;
  for (std::size_t i = 0; i < inner.size(); ++i) {
    const char c = inner[i];
    quotes.feed(c);
    if (!quotes.outside()) {
      continue;
    }
    if (c == '[') {
      ++depth;
    } else if (c == ']') {
      --depth;
    } else if (c == ',' && depth == 0) {
      appendPiece(inner.substr(start, i - start));
      start = i + 1;
    }
  }
  appendPiece(inner.substr(start));
  return pieces;
}

YamlNode YamlNode::parseScalarValue(const std::string& text) { return parseValue(text, 0); }

}  // namespace KorvTech
