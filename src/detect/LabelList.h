// A detector's class names, read from a label list file: one name per line.
#pragma once

#include <string>
#include <vector>

namespace KorvLumetra {

// Larger files are refused: a label list is a few kilobytes, anything this big is the wrong file.
constexpr long long kMaxLabelListBytes = 1 << 20;

// Reads the names of `path` into `labels`: UTF-8, a leading byte-order mark
// ignored, trailing blanks and CR removed, blank lines and lines starting with
// '#' skipped. Returns false with a one-line reason in `error` (and no labels)
// when the file is missing, unreadable, not a regular file, larger than
// kMaxLabelListBytes, not UTF-8, holds a NUL byte, or has no name at all.
bool readLabelList(const std::string& path, std::vector<std::string>& labels, std::string& error);

}  // namespace KorvLumetra
