#include "yaml/YamlNode.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "support/CaptureOutput.h"

using KorvTech::YamlNode;

namespace {

YamlNode parseDoc(const std::string& text) {
  YamlNode root;
  root.type = YamlNode::Map;
  root.parse(text, "test");
  return root;
}

// Compact tree notation: ~ Null, "text" Scalar, {k: v} Map, [a, b] Sequence;
// entries held beside the node's own kind follow as +{...} or +[...].
std::string describe(const YamlNode& node) {
  std::string map = "{", seq = "[";
  for (const auto& entry : node.map) map += (map.size() > 1 ? ", " : "") + entry.first + ": " + describe(entry.second);
  for (const YamlNode& element : node.seq) seq += (seq.size() > 1 ? ", " : "") + describe(element);
  map += "}", seq += "]";
  const auto type = node.type;
  const std::string own = type == YamlNode::Null     ? "~"
                          : type == YamlNode::Scalar ? "\"" + node.scalar + "\""
                          : type == YamlNode::Map    ? map
                                                     : seq;
  return own + (type != YamlNode::Map && !node.map.empty() ? "+" + map : "") +
         (type != YamlNode::Sequence && !node.seq.empty() ? "+" + seq : "");
}

void expectTrees(const std::vector<std::pair<const char*, const char*>>& cases) {  // document, expected tree
  for (const auto& c : cases) EXPECT_EQ(describe(parseDoc(c.first)), c.second) << "document: " << c.first;
}

}  // namespace

TEST(YamlNodeTest, CommentsQuotesAndKeys) {
  expectTrees({
      {"k: 'x # y'", R"({k: "x # y"})"},
      {"k: x # y", R"({k: "x"})"},
      {"k: it's # c", R"({k: "it's # c"})"},  // the apostrophe opens a quote
      {"a: b#c", R"({a: "b"})"},
      {"k: \"it's\" # c", R"({k: "it's"})"},  // a single quote is text inside double quotes
      {"name: \"a:b\"", R"({name: "a:b"})"},
      {"\"q\": 1", R"({"q": "1"})"},
      {"a:b\nk \t: a: b\n[a: b]: c", R"({[a: b]: "c", a: "b", k: "a: b"})"},
      {"k: ''", R"({k: ""})"},           // quoted empty text is a Scalar, not Null
      {"k: 'a\"", R"({k: "'a""})"},      // unmatched quotes stay
      {"k: \"a\\n\"", R"({k: "a\n"})"},  // no escape processing
      {"k: # nothing", "{k: ~}"},
      {"# comment\n\n \t \n", "{}"},
      {"'x: y'", R"({: "x: y"})"},  // no colon outside quotes: empty key
  });
}

TEST(YamlNodeTest, IndentationSequencesAndRepeats) {
  expectTrees({
      {"list:\n  - 1\n  - [2, 3]", R"({list: ["1", ["2", "3"]]})"},
      {"list:\n- 1\n- [2, 3]", R"({list: ["1", ["2", "3"]]})"},
      {"m: [1, [2, [3, 4]], 'a,b', , ]\ne: [ ]", R"({e: [], m: ["1", ["2", ["3", "4"]], "a,b"]})"},
      {"%YAML:1.0\n---\nk: v\n  %x: y", R"({: "---", k: "v"})"},
      {"a: 1\na: 2", R"({a: "2"})"},
      {"a:\n  x: 1\na:\n  y: 2", R"({a: {y: "2"}})"},                     // replaced wholesale
      {"top:\n parent:\n\tchild: 1", R"({top: {parent: {child: "1"}}})"},  // tab = 2 > 1
      {"a:\n  \tb:\n    c: 2", R"({a: {b: ~, c: "2"}})"},                  // "  \t" is as deep as 4 blanks
      {"a:\n  b:\n  - 1\n  c: 2", R"({a: {b: ["1"], c: "2"}})"},
      {"a:\n  b:\n    c:\n  d: 1\ne: 2", R"({a: {b: {c: ~}, d: "1"}, e: "2"})"},
      {"cams:\n  - name: x\n    rows: 3\n  - name: y", R"({cams: ["name: x", "name: y"]+{rows: "3"}})"},
      {"K: !!opencv-matrix\n  rows: 3\n  data: [1, 2]", R"({K: "!!opencv-matrix", data: ["1", "2"], rows: "3"})"},
      {"- a\n-\tb\nk: v", R"({k: "v"}+["a", "b"])"},
      {"list:\n  - \n  -x: 1\n-", R"({: "-", list: {: "-", -x: "1"}})"},  // a lone dash is no item
  });
}

// Long lists wrapped at 80 columns (as PyYAML writes them) and 4x4 matrices
// written as one flat list continue until their brackets close; brackets that
// never close leave every line as it is.
TEST(YamlNodeTest, WrappedInlineSequences) {
  expectTrees({
      {"d: [-0.28, 0.07, 1.9e-04,\n    1.7e-05]\nk: v", R"({d: ["-0.28", "0.07", "1.9e-04", "1.7e-05"], k: "v"})"},
      {"T: [1, 0, # first row\n\n  0, 1]  # last row", R"({T: ["1", "0", "0", "1"]})"},
      {"l:\n  - [1,\n     2]\n  - 3", R"({l: [["1", "2"], "3"]})"},
      {"a: [[1,\n 2], [3,\n\t4]]\nb: 'x'", R"({a: [["1", "2"], ["3", "4"]], b: "x"})"},
      {"a: [[\nb: [1,\n  2]\nc: 3", R"({a: "[[", b: ["1", "2"], c: "3"})"},  // only b's brackets close
      {"a: ['[',\n  ']']", R"({a: ["[", "]"]})"},  // quoted brackets do not count
      {"k: x [\nm: 1]", R"({k: "x [", m: "1]"})"},  // not an inline sequence: no joining
  });
}

TEST(YamlNodeTest, TextHelpers) {
  EXPECT_EQ(describe(parseDoc("k\t\r : \r x\r\t")), "{k: \"\r x\"}");  // only a trailing CR goes
  EXPECT_EQ(describe(parseDoc("]a: b\nc: '\nd: [\ne: '[a]'")), R"({: "]a: b", c: "'", d: "[", e: "[a]"})");
  using KV = std::pair<std::string, std::string>;
  EXPECT_EQ(YamlNode::splitKeyValue("  - a: b"), KV("a", "b"));
  EXPECT_EQ(YamlNode::splitKeyValue("  - no colon"), KV("", "no colon"));
  // A very deep inline nesting stays within bounds.
  EXPECT_EQ(YamlNode::parseScalarValue(std::string(100000, '[') + std::string(100000, ']')).type, YamlNode::Sequence);
}

TEST(YamlNodeTest, LoadFileAndLookup) {
  const std::string lf = "a: 1\nb:\n  - x\n  c: 'q'\nk: v # c\n";
  std::string crlf;
  for (char c : lf) crlf += c == '\n' ? "\r\n" : std::string(1, c);
  const std::string path = testing::TempDir() + "yaml_crlf_test.yaml";
  std::ofstream(path, std::ios::binary) << crlf;
  const YamlNode root = YamlNode::LoadFile(path);
  EXPECT_EQ(describe(root), describe(parseDoc(lf)));
  EXPECT_EQ(root["k"].scalar, "v");
  EXPECT_EQ(root["b"]["c"].type, YamlNode::Null);  // held in map, but b is a Sequence
  EXPECT_EQ(root["b"].map.at("c").scalar, "q");
  EXPECT_EQ(root["missing"].type, YamlNode::Null);
  EXPECT_EQ(root["a"]["x"].type, YamlNode::Null);

  const std::string missing = testing::TempDir() + "no/such/file.yaml";
  YamlNode empty;
  EXPECT_EQ(LumoTest::captureStderr([&] { empty = YamlNode::LoadFile(missing); }),
            "[YamlNode] Cannot open file: " + missing + "\n");
  EXPECT_EQ(empty.type, YamlNode::Map);
  EXPECT_EQ(describe(empty), "{}");

  // A directory is no document: the same message instead of a stream exception.
  const std::string directory = testing::TempDir();
  EXPECT_EQ(LumoTest::captureStderr([&] { empty = YamlNode::LoadFile(directory); }),
            "[YamlNode] Cannot open file: " + directory + "\n");
  const std::string big = testing::TempDir() + "yaml_big_test.yaml";
  std::ofstream(big, std::ios::binary) << std::string(YamlNode::kMaxDocumentBytes + 1, '#');
  const std::pair<std::string, std::string> reasons[] = {
      {path, ""}, {missing, "does not exist"}, {directory, "is a directory"},
      {"/dev/null", "is not a regular file"}, {big, "is larger than 1 MB (1048577 bytes)"}};
  for (const auto& [file, reason] : reasons) EXPECT_EQ(YamlNode::UnreadableReason(file), reason) << file;
}
