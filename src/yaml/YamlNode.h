// KorvTech::YamlNode: the library's own reader for the indentation-structured
// YAML subset of its configuration and calibration files.
//
// Supported: block maps by indentation, block sequences of "- " items, inline
// sequences "[a, [b, c]]" (also wrapped over several lines until the brackets
// close), single- and double-quoted scalars (quotes removed,
// no escapes), "#" comments outside quotes, "%" directive lines (skipped).
// Anything else (block scalars, anchors, flow maps, maps inside items) is kept
// as plain scalar text or placed by the indentation rules. The parser never
// rejects input; scalars stay text until a typed reader (YamlReaders.h)
// converts them.
//
// A plain value type: copies are deep, there is no shared state.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace KorvTech {

class YamlNode {
 public:
  enum NodeType : int32_t { Null = 0, Scalar = 1, Map = 2, Sequence = 3 };

  // Consumers look at `type` first and read only the matching container: a
  // Sequence node may also carry map entries (lines indented under an item).
  NodeType type = Null;
  std::string scalar;                   // text of a Scalar node
  std::map<std::string, YamlNode> map;  // children of a Map node, byte-wise key order
  std::vector<YamlNode> seq;            // elements of a Sequence node

  // Reads and parses a whole file. The root is always a Map node; when the
  // file cannot be opened (or is no regular file) it is empty and a message
  // goes to stderr.
  static YamlNode LoadFile(const std::string& path);

  // Configuration and calibration files are a few dozen lines; anything
  // larger is refused by their readers before it is parsed.
  static constexpr long long kMaxDocumentBytes = 1 << 20;

  // Why `path` is no readable document: "does not exist", "is a directory",
  // "is not a regular file" or "is larger than 1 MB (N bytes)"; empty when
  // it is a regular file of at most kMaxDocumentBytes.
  static std::string UnreadableReason(const std::string& path);

  // Fills this node from document text. The caller sets `type` beforehand
  // (LoadFile sets Map); `source` names the document and is not used.
  void parse(const std::string& text, const std::string& source);

  // A copy of the child under `key` when this is a Map holding it, otherwise
  // a Null node. Never inserts.
  YamlNode operator[](const std::string& key) const;

  // Removes leading blanks and tabs (only those two).
  static std::string trimLeft(const std::string& text);

  // Removes leading blanks and tabs, then trailing tabs, carriage returns and
  // blanks: a carriage return only goes at the end, where CRLF files leave it.
  static std::string trim(const std::string& text);

  // Splits "key: value" at the first colon outside quotes and brackets; a
  // leading "- " is dropped first. Without such a colon the key is empty and
  // the value is the whole (left-trimmed) text.
  static std::pair<std::string, std::string> splitKeyValue(const std::string& line);

  // Splits the text between an inline sequence's brackets at top-level commas
  // outside quotes; pieces are trimmed and empty ones dropped. Quotes and
  // nested brackets are kept for parseScalarValue.
  static std::vector<std::string> splitInlineSeq(const std::string& inner);

  // Null for empty text, a Sequence for "[...]", a Scalar otherwise (with one
  // pair of matching surrounding quotes removed).
  static YamlNode parseScalarValue(const std::string& text);
};

// Lets callers name the node kinds without the class, e.g. NodeType::Map.
using NodeType = YamlNode::NodeType;

}  // namespace KorvTech
