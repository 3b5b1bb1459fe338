#include "yaml/YamlNode.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>
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
  const auto mapText = [](const YamlNode& n) {
    std::string s = "{";
    for (const auto& entry : n.map) {
      s += (s.size() > 1 ? ", " : "") + entry.first + ": " + describe(entry.second);
    }
    return s + "}";
  };
  const auto seqText = [](const YamlNode& n) {
    std::string s = "[";
    for (const YamlNode& element : n.seq) {
      s += (s.size() > 1 ? ", " : "") + describe(element);
    }
    return s + "]";
  };
  std::string s = node.type == YamlNode::Null     ? "~"
                  : node.type == YamlNode::Scalar ? "\"" + node.scalar + "\""
                  : node.type == YamlNode::Map    ? mapText(node)
                                                  : seqText(node);
  if (node.type != YamlNode::Map && !node.map.empty()) s += "+" + mapText(node);
  if (node.type != YamlNode::Sequence && !node.seq.empty()) s += "+" + seqText(node);
  return s;
}

using Case = std::pair<const char*, const char*>;  // document, expected tree

void expectTrees(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    EXPECT_EQ(describe(parseDoc(c.first)), c.second) << "document: " << c.first;
  }
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
      {"a:b\nk: a: b\n[a: b]: c", R"({[a: b]: "c", a: "b", k: "a: b"})"},
      {"k: ''", R"({k: ""})"},             // quoted empty text is a Scalar, not Null
      {"k: 'a\"", R"({k: "'a""})"},        // unmatched quotes stay
      {"k: \"a\\n\"", R"({k: "a\n"})"},    // no escape processing
      {"k \t: v", R"({k: "v"})"},
      {"k: # nothing", "{k: ~}"},
      {"# comment\n\n \t \n", "{}"},
      {"'x: y'", R"({: "x: y"})"},  // no colon outside quotes: empty key
  });
}

TEST(YamlNodeTest, IndentationSequencesAndRepeats) {
  expectTrees({
      {"list:\n  - 1\n  - [2, 3]", R"({list: ["1", ["2", "3"]]})"},
      {"list:\n- 1\n- [2, 3]", R"({list: ["1", ["2", "3"]]})"},
      {"m: [1, [2, [3, 4]], 'a,b', , ]", R"({m: ["1", ["2", ["3", "4"]], "a,b"]})"},
      {"e: []\nf: [ ]\ng: [a,,b]", R"({e: [], f: [], g: ["a", "b"]})"},
      {"%YAML:1.0\n---\nk: v\n  %x: y", R"({: "---", k: "v"})"},
      {"a: 1\na: 2", R"({a: "2"})"},
      {"a:\n  x: 1\na: 3", R"({a: "3"})"},
      {"a:\n  x: 1\na:\n  y: 2", R"({a: {y: "2"}})"},
      {"top:\n parent:\n\tchild: 1", R"({top: {parent: {child: "1"}}})"},  // tab = 2 > 1
      {"a:\n  \tb:\n    c: 2", R"({a: {b: ~, c: "2"}})"},  // "  \t" is as deep as 4 blanks
      {"a:\n  b:\n  - 1\n  c: 2", R"({a: {b: ["1"], c: "2"}})"},
      {"a:\n  b:\n    c:\n  d: 1\ne: 2", R"({a: {b: {c: ~}, d: "1"}, e: "2"})"},
      {"cams:\n  - name: x\n    rows: 3\n  - name: y", R"({cams: ["name: x", "name: y"]+{rows: "3"}})"},
      {"K: !!opencv-matrix\n  rows: 3\n  data: [1, 2]",
       R"({K: "!!opencv-matrix", data: ["1", "2"], rows: "3"})"},
      {"- a\n-\tb\nk: v", R"({k: "v"}+["a", "b"])"},
      {"x: 1\n  - i", R"({x: "1"}+["i"])"},
      {"list:\n  - \n  -x: 1\n-", R"({: "-", list: {: "-", -x: "1"}})"},  // a lone dash is no item
  });
}

TEST(YamlNodeTest, TextHelpers) {
  EXPECT_EQ(YamlNode::trimLeft(" \t x \t"), "x \t");
  EXPECT_EQ(YamlNode::trimLeft("\r x"), "\r x");
  EXPECT_EQ(YamlNode::trim(" \tx \t\r "), "x");
  EXPECT_EQ(YamlNode::trim("\r x\r"), "\r x");

  using KV = std::pair<std::string, std::string>;
  EXPECT_EQ(YamlNode::splitKeyValue("  - a: b"), KV("a", "b"));
  EXPECT_EQ(YamlNode::splitKeyValue("k\t\r : v"), KV("k", "v"));
  EXPECT_EQ(YamlNode::splitKeyValue("'a:b': c"), KV("'a:b'", "c"));
  EXPECT_EQ(YamlNode::splitKeyValue("  - no colon"), KV("", "no colon"));
  EXPECT_EQ(YamlNode::splitKeyValue("]a: b"), KV("", "]a: b"));  // depth -1 is not top level
  EXPECT_EQ(YamlNode::splitKeyValue(""), KV("", ""));

  EXPECT_EQ(describe(YamlNode::parseScalarValue(" \t")), "~");
  EXPECT_EQ(describe(YamlNode::parseScalarValue("'")), R"("'")");
  EXPECT_EQ(describe(YamlNode::parseScalarValue("[")), R"("[")");
  EXPECT_EQ(describe(YamlNode::parseScalarValue("'[a]'")), R"("[a]")");
}

TEST(YamlNodeTest, LoadFileAndLookup) {
  const std::string lf = "a: 1\nb:\n  - x\n  c: 'q'\nk: v # c\n";
  std::string crlf;
  for (char c : lf) crlf += (c == '\n') ? std::string("\r\n") : std::string(1, c);
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
  const std::string err = LumoTest::captureStderr([&] { empty = YamlNode::LoadFile(missing); });
  EXPECT_EQ(err, "[YamlNode] Cannot open file: " + missing + "\n");
  EXPECT_EQ(describe(empty), "{}");
  EXPECT_EQ(empty.type, YamlNode::Map);
}

namespace {

// Structural facts that every parse must keep, whatever the input.
void checkInvariants(const YamlNode& node, int depth = 0) {
  ASSERT_LT(depth, 1000);
  if (node.type == YamlNode::Null) {
    EXPECT_TRUE(node.scalar.empty() && node.map.empty() && node.seq.empty());
  }
  if (node.type == YamlNode::Scalar) {
    EXPECT_TRUE(node.map.empty() && node.seq.empty());
    EXPECT_EQ(node.scalar.find('\n'), std::string::npos);
  }
  for (const auto& entry : node.map) {
    const std::string& key = entry.first;
    EXPECT_EQ(key, YamlNode::trim(key));
    EXPECT_EQ(key.find('\n'), std::string::npos);
    checkInvariants(entry.second, depth + 1);
  }
  for (const YamlNode& element : node.seq) {
    EXPECT_NE(element.type, YamlNode::Null);  // empty inline elements are dropped
    checkInvariants(element, depth + 1);
  }
}

}  // namespace

TEST(YamlNodeTest, ArbitraryInputNeverBreaksTheParser) {
  std::mt19937 rng(20240611);
  const std::vector<std::string> tokens = {"a", "key", ":", ": ", "- ", "-", "\t", " ", "  ", "[",
                                           "]", ",", "'", "\"", "#", "%", "\n", "\r\n", "1.5", "x: [1, [2"};
  for (int i = 0; i < 6000; ++i) {
    std::string text;
    const int length = static_cast<int>(rng() % 200);
    for (int j = 0; j < length; ++j) {
      if (i % 2 == 0) {
        text += static_cast<char>(rng() % 256);
      } else {
        text += tokens[rng() % tokens.size()];
      }
    }
    const YamlNode root = parseDoc(text);
    EXPECT_EQ(root.type, YamlNode::Map);
    checkInvariants(root);
    if (testing::Test::HasFailure()) {
      FAIL() << "input #" << i;
    }
  }
  // A very deep inline nesting stays within bounds.
  const YamlNode deep = parseDoc("k: " + std::string(100000, '[') + std::string(100000, ']'));
  EXPECT_EQ(deep["k"].type, YamlNode::Sequence);
}
