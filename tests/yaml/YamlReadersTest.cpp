#include "yaml/YamlReaders.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/CaptureOutput.h"

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
