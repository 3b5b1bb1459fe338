#include "yaml/YamlReaders.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <string>
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

// Runs `read` and expects it to throw `Exception` whose what() is `name`.
template <typename Exception, typename Fn>
void expectThrowNamed(Fn read, const std::string& name, const std::string& context) {
  try {
    read();
    ADD_FAILURE() << context << ": no exception";
  } catch (const Exception& e) {
    EXPECT_EQ(std::string(e.what()), name) << context;
  }
}

// Runs `read` and expects status 1 with the wrong-kind message for `type` on
// stderr, or no output at all when `type` is empty.
template <typename Fn>
void expectStatusAndMessage(Fn read, const std::string& type) {
  int status = 0;
  const std::string err = LumoTest::captureStderr([&] { status = read(); });
  EXPECT_EQ(status, 1) << type;
  EXPECT_EQ(err, type.empty() ? "" : "[YamlNode] Expected scalar for " + type + " conversion\n");
}

}  // namespace

TEST(YamlReadersTest, ScalarConversions) {
  const struct { const char* text; bool expected; } flags[] = {
      {"Yes", true}, {"ON", true}, {"1", true}, {"TrUe", true}, {"'on'", true},
      {"2", false}, {"y", false}, {"no", false}, {"1.0", false}, {"''", false}};
  for (const auto& c : flags) {
    bool value = !c.expected;
    EXPECT_EQ(CheckParseYaml(doc(std::string("enable_filter: ") + c.text), "enable_filter", &value), 1);
    EXPECT_EQ(value, c.expected) << c.text;
  }

  const struct { const char* text; int32_t expected; } ints[] = {
      {"3.9", 3}, {"12px", 12}, {"-7", -7}, {"0x10", 0}, {"2147483647", INT32_MAX}, {"-2147483648", INT32_MIN}};
  for (const auto& c : ints) {
    int32_t value = 99;
    EXPECT_EQ(CheckParseYaml(doc(std::string("thread_num: ") + c.text), "thread_num", &value), 1);
    EXPECT_EQ(value, c.expected) << c.text;
  }
  for (const char* text : {"abc", "'  '", "-"}) {
    int32_t value = 99;
    expectThrowNamed<std::invalid_argument>(
        [&] { CheckParseYaml(doc(std::string("thread_num: ") + text), "thread_num", &value); }, "stoi", text);
    EXPECT_EQ(value, 99);
  }
  for (const char* text : {"4294967296", "2147483648", "-2147483649", "99999999999999999999"}) {
    int32_t value = 99;
    expectThrowNamed<std::out_of_range>(
        [&] { CheckParseYaml(doc(std::string("thread_num: ") + text), "thread_num", &value); }, "stoi", text);
  }

  float f = 0.0f;
  EXPECT_EQ(CheckParseYaml(doc("v: 1.5f"), "v", &f), 1);
  EXPECT_EQ(f, 1.5f);
  EXPECT_EQ(CheckParseYaml(doc("v: -2.5e-1"), "v", &f), 1);
  EXPECT_EQ(f, -0.25f);
  expectThrowNamed<std::invalid_argument>([&] { CheckParseYaml(doc("v: abc"), "v", &f); }, "stof", "abc");
  expectThrowNamed<std::out_of_range>([&] { CheckParseYaml(doc("v: 1e60"), "v", &f); }, "stof", "1e60");

  std::string s;
  EXPECT_EQ(CheckParseYaml(doc("p: ' a # b '"), "p", &s), 1);
  EXPECT_EQ(s, " a # b ");

  // errno survives conversions that do not set it, including failed ones.
  errno = EDOM;
  EXPECT_EQ(CheckParseYaml(doc("v: 2"), "v", &f), 1);
  EXPECT_EQ(errno, EDOM);
  int32_t i = 0;
  EXPECT_THROW(CheckParseYaml(doc("v: 4294967296"), "v", &i), std::out_of_range);  // fits a long
  EXPECT_EQ(errno, EDOM);
  EXPECT_THROW(CheckParseYaml(doc("v: 1e60"), "v", &f), std::out_of_range);
  EXPECT_EQ(errno, ERANGE);
}

TEST(YamlReadersTest, WrongKindsAndVectors) {
  // A present key of the wrong kind: zero value, message, status 1.
  const YamlNode root = doc("voxelSize:\n  a: 1\nlist: [1, 2]\nm:\n  k: v\nn: 5");
  float f = 7.0f;
  int32_t i = 7;
  bool b = true;
  std::string s = "old";
  std::vector<double> v = {42.0};
  expectStatusAndMessage([&] { return CheckParseYaml(root, "voxelSize", &f); }, "float");
  expectStatusAndMessage([&] { return CheckParseYaml(root, "list", &i); }, "int");
  expectStatusAndMessage([&] { return CheckParseYaml(root, "m", &b); }, "bool");
  expectStatusAndMessage([&] { return CheckParseYaml(root, "list", &s); }, "string");
  EXPECT_EQ(f, 0.0f);
  EXPECT_EQ(i, 0);
  EXPECT_FALSE(b);
  EXPECT_EQ(s, "");

  EXPECT_EQ(CheckParseYaml(doc("d: [1, 2.5, -3e2]"), "d", &v), 1);
  EXPECT_EQ(v, (std::vector<double>{1.0, 2.5, -300.0}));
  EXPECT_EQ(CheckParseYaml(doc("d:\n  - 1.0\n  - 2"), "d", &v), 1);
  EXPECT_EQ(v, (std::vector<double>{1.0, 2.0}));
  expectStatusAndMessage([&] { return CheckParseYaml(doc("d: [1, [2], 3]"), "d", &v); }, "double");
  EXPECT_EQ(v, (std::vector<double>{1.0, 0.0, 3.0}));
  expectThrowNamed<std::invalid_argument>([&] { CheckParseYaml(doc("d: [1, x, 3]"), "d", &v); }, "stod",
                                          "[1, x, 3]");
  EXPECT_EQ(v, (std::vector<double>{1.0, 0.0, 3.0}));  // untouched by the failed read
  expectStatusAndMessage([&] { return CheckParseYaml(root, "n", &v); }, "");  // a Scalar: silently empty
  EXPECT_TRUE(v.empty());
}

TEST(YamlReadersTest, OptionalReadersFallBackToDefault) {
  const YamlNode root = doc("present: 4\nempty:\nnested:\n  a: 1\nratio: 0.5");
  const int32_t defaultInt = -3;
  const float defaultFloat = 2.5f;
  int32_t i = 0;
  float f = 0.0f;
  const std::string quiet = LumoTest::captureStderr([&] {
    EXPECT_EQ(ParseYamlOrDefault(root, "absent", &i, &defaultInt), 0);
    EXPECT_EQ(i, -3);
    i = 0;
    EXPECT_EQ(ParseYamlOrDefault(root, "empty", &i, &defaultInt), 0);
    EXPECT_EQ(i, -3);
    EXPECT_EQ(ParseYamlOrDefault(root, "present", &i, &defaultInt), 1);
    EXPECT_EQ(i, 4);
    EXPECT_EQ(ParseYamlOrDefault(root, "absent", &f, &defaultFloat), 0);
    EXPECT_EQ(f, 2.5f);
    EXPECT_EQ(ParseYamlOrDefault(root, "ratio", &f, &defaultFloat), 1);
    EXPECT_EQ(f, 0.5f);
    // Only a Map holds keys: a Sequence node's map entries do not count.
    EXPECT_EQ(ParseYamlOrDefault(doc("s:\n  - 1\n  k: 9")["s"], "k", &i, &defaultInt), 0);
    EXPECT_EQ(i, -3);
  });
  EXPECT_EQ(quiet, "");
  expectStatusAndMessage([&] { return ParseYamlOrDefault(root, "nested", &i, &defaultInt); }, "int");
  EXPECT_EQ(i, 0);
}

TEST(YamlReadersDeathTest, MissingRequiredKeyEndsProcess) {
  const YamlNode root = doc("voxelSize:\nminPoints: 3");
  const YamlNode nullNode;
  float f = 0.0f;
  int32_t i = 0;
  bool b = false;
  std::string s;
  std::vector<double> v;
  const char* message = "\\[CheckParseYaml\\] Missing required key: voxelSize";
  EXPECT_EXIT(CheckParseYaml(root, "voxelSize", &f), testing::ExitedWithCode(1), message);  // empty value
  EXPECT_EXIT(CheckParseYaml(doc("other: 1"), "voxelSize", &i), testing::ExitedWithCode(1), message);
  EXPECT_EXIT(CheckParseYaml(nullNode, "voxelSize", &b), testing::ExitedWithCode(1), message);
  EXPECT_EXIT(CheckParseYaml(root, "voxelSize", &s), testing::ExitedWithCode(1), message);
  EXPECT_EXIT(CheckParseYaml(root, "voxelSize", &v), testing::ExitedWithCode(1), message);
  EXPECT_EXIT(CheckParseYaml(root, "minpoints", &i), testing::ExitedWithCode(1),
              "Missing required key: minpoints");  // keys are case-sensitive
}
