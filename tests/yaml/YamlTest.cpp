// The YAML subset's parser and the typed key readers on top of it.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/CaptureOutput.h"
#include "yaml/YamlNode.h"
#include "yaml/YamlReaders.h"

using KorvLumetra::CheckParseYaml;
using KorvLumetra::ParseYamlOrDefault;
using KorvTech::YamlNode;

namespace {

YamlNode doc(const std::string& text) {
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
  for (const auto& c : cases) EXPECT_EQ(describe(doc(c.first)), c.second) << "document: " << c.first;
}

// what() of the `Exception` that `read` throws.
template <typename Exception, typename Fn>
std::string thrown(Fn read) {
  try {
    read();
  } catch (const Exception& e) {
    return e.what();
  }
  return "no exception";
}

// Expects status 1 with the wrong-kind message for `type` on stderr, or no output when `type` is empty.
template <typename Fn>
void expectStatusAndMessage(Fn read, const std::string& type) {
  int status = 0;
  const std::string err = LumoTest::captureStderr([&] { status = read(); });
  EXPECT_EQ(status, 1) << type;
  EXPECT_EQ(err, type.empty() ? "" : "[YamlNode] Expected scalar for " + type + " conversion\n");
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
  EXPECT_EQ(describe(doc("k\t\r : \r x\r\t")), "{k: \"\r x\"}");  // only a trailing CR goes
  EXPECT_EQ(describe(doc("]a: b\nc: '\nd: [\ne: '[a]'")), R"({: "]a: b", c: "'", d: "[", e: "[a]"})");
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
  EXPECT_EQ(describe(root), describe(doc(lf)));
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

TEST(YamlReadersTest, ScalarConversions) {
  const std::pair<const char*, bool> flags[] = {{"Yes", true}, {"ON", true}, {"1", true}, {"'on'", true},
                                                {"2", false},  {"y", false}, {"1.0", false}};
  for (const auto& c : flags) {
    bool value = !c.second;
    EXPECT_EQ(CheckParseYaml(doc(std::string("k: ") + c.first), "k", &value), 1);
    EXPECT_EQ(value, c.second) << c.first;
  }
  const std::pair<const char*, int32_t> ints[] = {
      {"3.9", 3}, {"0x10", 0}, {"2147483647", INT32_MAX}, {"-2147483648", INT32_MIN}};
  int32_t i = 99;
  for (const auto& c : ints) {
    EXPECT_EQ(CheckParseYaml(doc(std::string("k: ") + c.first), "k", &i), 1);
    EXPECT_EQ(i, c.second) << c.first;
  }
  i = 99;
  EXPECT_EQ(thrown<std::invalid_argument>([&] { CheckParseYaml(doc("k: abc"), "k", &i); }), "stoi");
  EXPECT_EQ(i, 99);
  for (const char* text : {"2147483648", "-2147483649", "99999999999999999999"}) {
    EXPECT_EQ(thrown<std::out_of_range>([&] { CheckParseYaml(doc(std::string("k: ") + text), "k", &i); }), "stoi");
  }
  float f = 0.0f;
  EXPECT_TRUE(CheckParseYaml(doc("v: -2.5e-1f"), "v", &f) == 1 && f == -0.25f);
  EXPECT_EQ(thrown<std::invalid_argument>([&] { CheckParseYaml(doc("v: abc"), "v", &f); }), "stof");
  std::string s;
  EXPECT_TRUE(CheckParseYaml(doc("p: ' a # b '"), "p", &s) == 1 && s == " a # b ");

  // errno survives conversions that do not set it, including failed ones.
  errno = EDOM;
  EXPECT_EQ(CheckParseYaml(doc("v: 2"), "v", &f), 1);
  EXPECT_EQ(errno, EDOM);
  EXPECT_EQ(thrown<std::out_of_range>([&] { CheckParseYaml(doc("v: 4294967296"), "v", &i); }), "stoi");  // fits a long
  EXPECT_EQ(errno, EDOM);
  EXPECT_EQ(thrown<std::out_of_range>([&] { CheckParseYaml(doc("v: 1e60"), "v", &f); }), "stof");
  EXPECT_EQ(errno, ERANGE);
}

TEST(YamlReadersTest, WrongKindsAndVectors) {
  // A present key of the wrong kind: zero value, message, status 1.
  const YamlNode root = doc("voxelSize:\n  a: 1\nlist: [1, 2]\nm:\n  k: v\nn: 5");
  float f = 7.0f;
  int32_t i = 7;
  bool b = true;
  std::string s = "old";
  expectStatusAndMessage([&] { return CheckParseYaml(root, "voxelSize", &f); }, "float");
  expectStatusAndMessage([&] { return CheckParseYaml(root, "list", &i); }, "int");
  expectStatusAndMessage([&] { return CheckParseYaml(root, "m", &b); }, "bool");
  expectStatusAndMessage([&] { return CheckParseYaml(root, "list", &s); }, "string");
  EXPECT_TRUE(f == 0.0f && i == 0 && !b && s.empty());

  std::vector<double> v = {42.0};
  EXPECT_EQ(CheckParseYaml(doc("d: [1, 2.5, -3e2]"), "d", &v), 1);
  EXPECT_EQ(v, (std::vector<double>{1.0, 2.5, -300.0}));
  expectStatusAndMessage([&] { return CheckParseYaml(doc("d: [1, [2], 3]"), "d", &v); }, "double");
  EXPECT_EQ(v, (std::vector<double>{1.0, 0.0, 3.0}));
  EXPECT_EQ(thrown<std::invalid_argument>([&] { CheckParseYaml(doc("d: [1, x, 3]"), "d", &v); }), "stod");
  EXPECT_EQ(v, (std::vector<double>{1.0, 0.0, 3.0}));  // untouched by the failed read
  expectStatusAndMessage([&] { return CheckParseYaml(root, "n", &v); }, "");  // a Scalar: silently empty
  EXPECT_TRUE(v.empty());
}

TEST(YamlReadersTest, OptionalReadersFallBackToDefaultSilently) {
  const YamlNode root = doc("present: 4\nempty:\nnested:\n  a: 1\nratio: 0.5");
  const int32_t defaultInt = -3;
  const float defaultFloat = 2.5f;
  int32_t i = 0;
  float f = 0.0f;
  const std::string err = LumoTest::captureStderr([&] {
    EXPECT_TRUE(ParseYamlOrDefault(root, "absent", &i, &defaultInt) == 0 && i == -3);
    i = 0;
    EXPECT_TRUE(ParseYamlOrDefault(root, "empty", &i, &defaultInt) == 0 && i == -3);
    EXPECT_TRUE(ParseYamlOrDefault(root, "present", &i, &defaultInt) == 1 && i == 4);
    EXPECT_TRUE(ParseYamlOrDefault(root, "absent", &f, &defaultFloat) == 0 && f == 2.5f);
    EXPECT_TRUE(ParseYamlOrDefault(root, "ratio", &f, &defaultFloat) == 1 && f == 0.5f);
    // Only a Map holds keys: a Sequence node's map entries do not count.
    EXPECT_TRUE(ParseYamlOrDefault(doc("s:\n  - 1\n  k: 9")["s"], "k", &i, &defaultInt) == 0 && i == -3);
  });
  EXPECT_EQ(err, "");
  expectStatusAndMessage([&] { return ParseYamlOrDefault(root, "nested", &i, &defaultInt); }, "int");
  EXPECT_EQ(i, 0);
}

// Each reader, with the key empty, absent (keys are case-sensitive) or asked of a node that is no Map.
TEST(YamlReadersDeathTest, MissingRequiredKeyEndsProcess) {
  const YamlNode root = doc("voxelSize:\nminPoints: 3");
  float f = 0.0f;
  int32_t i = 0;
  bool b = false;
  std::string s;
  std::vector<double> v;
  const char* message = "\\[CheckParseYaml\\] Missing required key: voxelSize\n";
  EXPECT_EXIT(CheckParseYaml(root, "voxelSize", &f), testing::ExitedWithCode(1), message);
  EXPECT_EXIT(CheckParseYaml(doc("voxelsize: 1"), "voxelSize", &i), testing::ExitedWithCode(1), message);
  EXPECT_EXIT(CheckParseYaml(YamlNode(), "voxelSize", &b), testing::ExitedWithCode(1), message);
  EXPECT_EXIT(CheckParseYaml(root, "voxelSize", &s), testing::ExitedWithCode(1), message);
  EXPECT_EXIT(CheckParseYaml(root, "voxelSize", &v), testing::ExitedWithCode(1), message);
}
