// zelctl validate: a work description file checked offline, every error printed with its line,
// column and path, the exit code saying whether the file is valid; and the reader under it, which
// keeps the place of every value and refuses what a description cannot hold without crashing.
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "description_file.h"
#include "description_samples.h"
#include "support/child_process.h"

namespace {

using zeltest::expect_five_errors;
using zeltest::five_errors;
using zeltest::lines_of;
using zeltest::temp_dir;
using result = zeltest::run_result;

result run(const std::vector<std::string>& args) {
  return zeltest::run_program(ZELCTL_PROGRAM, args, "");
}

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Writes `text` to `name` in `dir` and runs zelctl validate on it with `extra` arguments first.
result validate(const temp_dir& dir, const std::string& name, const std::string& text,
                const std::vector<std::string>& extra = {}) {
  std::ofstream(dir.file(name), std::ios::binary) << text;
  return run(std::vector<std::string>{"validate"} + extra +
             std::vector<std::string>{dir.file(name)});
}

TEST(ZelctlValidate, FiveErrorsInOneFileAreAllReportedWithLineAndColumn) {
  temp_dir dir;
  const result r = validate(dir, "render.yaml", five_errors);
  expect_five_errors(r, dir.file("render.yaml"), {"5:5", "6:5", "7:5", "8:5", "11:13"});
}

TEST(ZelctlValidate, TheSameErrorsInJsonArePlacedInTheJsonText) {
  temp_dir dir;
  const result r = validate(dir, "render.json", R"({
  "name": "render",
  "tasks": [
    {"name": "fetch", "command": "fetch.sh", "cpus": 2, "max-attempts": 0},
    {"name": "render", "cores": "four"},
    {"name": "publish", "command": "publish.sh", "after": ["rendr"]}
  ]
})");
  expect_five_errors(r, dir.file("render.json"), {"4:46", "4:57", "5:5", "5:24", "6:60"});
}

TEST(ZelctlValidate, AGoodFileExitsZeroAndSaysWhatItHolds) {
  temp_dir dir;
  const std::string build = R"(name: build
priority: 3
tasks:
  - name: compile
    command: make -j8
    cores: 8
  - name: test
    command: make test
    after: compile
    max-attempts: 2
)";
  const result yaml = validate(dir, "build.yaml", build);
  EXPECT_EQ(yaml.code, 0) << yaml.out << yaml.err;
  EXPECT_EQ(yaml.out, dir.file("build.yaml") + ": workflow 'build': 2 tasks\n");
  EXPECT_EQ(yaml.err, "");

  const result json = validate(
      dir, "jobs.json", R"({"jobs": [{"command": "a.sh"}, {"command": "b.sh", "cores": 2}]})");
  EXPECT_EQ(json.code, 0) << json.out << json.err;
  EXPECT_EQ(json.out, dir.file("jobs.json") + ": jobs: 2 jobs\n");
}

TEST(ZelctlValidate, SettingsGiveATemplateItsInValues) {
  temp_dir dir;
  const std::string render = zeltest::render_template;
  const result without = validate(dir, "render.yaml", render);
  EXPECT_EQ(without.code, 4);
  EXPECT_EQ(without.out, dir.file("render.yaml") +
                             ":4:3: /inputs/frames: in-value 'frames' has no default and was "
                             "given no value\n");

  const result with = validate(dir, "render.yaml", render, {"--set", "frames=1-100"});
  EXPECT_EQ(with.code, 0) << with.out << with.err;
  EXPECT_EQ(with.out, dir.file("render.yaml") +
                          ": template 'render': 2 tasks, in-values frames=\"1-100\" quality=2\n");

  const result bad = validate(dir, "render.yaml", render,
                              {"--set", "frames=1", "--set", "quality=high", "--set", "qualty=3"});
  EXPECT_EQ(bad.code, 4);
  EXPECT_EQ(lines_of(bad.out),
            (std::vector<std::string>{
                "--set quality=high: in-value 'quality': 'high' is not an int",
                "--set qualty=3: the workflow has no in-value 'qualty' (did you mean 'quality'?)",
            }));

  const result usage = validate(dir, "render.yaml", render, {"--set", "frames"});
  EXPECT_EQ(usage.code, 1);
  EXPECT_EQ(usage.err, "zelctl: --set 'frames' is not NAME=VALUE\n");
}

TEST(ZelctlValidate, WhatTheReaderRefusesIsPlacedAndNotReportedTwice) {
  temp_dir dir;
  const result r = validate(dir, "odd.yaml", R"(name: odd
tasks:
  - name: a
    command:
    cores: !!int many
  - ~
  - name: b
    command: b
    after: [a, null]
    name: c
    queue: !custom q
    ? [k]
    : v
---
name: second
)");
  const std::string f = dir.file("odd.yaml");
  EXPECT_EQ(r.code, 4);
  EXPECT_EQ(lines_of(r.out),
            (std::vector<std::string>{
                f + ":4:5: /tasks/0/command: 'command' has no value",
                f + ":5:12: /tasks/0/cores: 'many' is not an int",
                f + ":6:5: /tasks/1: no value (null)",
                f + ":9:16: /tasks/2/after/1: no value (null)",
                f + ":10:5: /tasks/2/name: key 'name' is given twice (first at 7:5)",
                f + ":11:12: /tasks/2/queue: the tag '!custom' is not taken here (only !!str, "
                    "!!int and !!bool)",
                f + ":12:7: /tasks/2: a key is a string, not a list",
                f + ":15:1: the file holds more than one description (the second begins here)",
            }));
  EXPECT_EQ(r.err, "zelctl: " + f + ": 8 errors\n");
}

TEST(ZelctlValidate, AFileThatIsNoDescriptionIsOneError) {
  temp_dir dir;
  const std::vector<std::pair<std::string, std::string>> cases{
      {"tasks: [a,\n", ":2:1: end of sequence flow not found"},
      {"", ":1:1: the file holds no description"},
      {"- name: a\n", ":1:1: a description is a map, not a list"},
      {"just text\n", ":1:1: a description is a map, not a scalar"},
      {"{\"name\": \"x\", \"tasks\": [}\n", ":1:25: illegal flow end"},
      {"name: \"x\ntasks: []\n",
       ":1:7: /name: a quoted string is not closed before the end of the file"},
      {"name: 'it''s\ntasks: []\n",
       ":1:7: /name: a quoted string is not closed before the end of the file"},
      {"\xef\xbb\xbfname: ok\ntasks:\n  - name: t\n    command: \"c\n    cores: 2\n",
       ":4:14: /tasks/0/command: a quoted string is not closed before the end of the file"},
      {std::string("\xff\xfen\0a\0m\0e\0", 10),
       ":1:1: the file is not UTF-8 text (UTF-16 or UTF-32, or binary)"},
  };
  for (const auto& [text, expected] : cases) {
    const result r = validate(dir, "file.yaml", text);
    EXPECT_EQ(r.code, 4) << text;
    EXPECT_EQ(r.out, dir.file("file.yaml") + expected + "\n") << text;
  }
}

TEST(ZelctlValidate, AFileThatCannotBeReadIsExitThree) {
  temp_dir dir;
  const result missing = run({"validate", dir.file("none.yaml")});
  EXPECT_EQ(missing.code, 3);
  EXPECT_EQ(missing.err,
            "zelctl: cannot read '" + dir.file("none.yaml") + "': No such file or directory\n");
  const result directory = run({"validate", dir.path});
  EXPECT_EQ(directory.code, 3);
  EXPECT_EQ(lines_of(directory.err).size(), 1u) << directory.err;
  EXPECT_EQ(missing.out, "");
}

TEST(ZelctlValidate, TheSampleDescriptionsAreValid) {
  const std::string examples = EXAMPLES_DIR;
  const std::vector<std::pair<std::vector<std::string>, std::string>> samples{
      {{"render.yaml", "--set", "frames=1-100"},
       "template 'render-shot': 3 tasks, in-values camera=\"main\" frames=\"1-100\" quality=2"},
      {{"build.json"}, "workflow 'build-and-test': 5 tasks"},
      {{"nightly-jobs.yaml"}, "jobs 'nightly': 3 jobs"},
  };
  std::set<std::string> checked;
  for (const auto& [args, summary] : samples) {
    const std::string file = examples + "/" + args[0];
    checked.insert(args[0]);
    std::vector<std::string> command{"validate", file};
    command.insert(command.end(), args.begin() + 1, args.end());
    const result r = run(command);
    EXPECT_EQ(r.code, 0) << r.out << r.err;
    EXPECT_EQ(r.out, file + ": " + summary + "\n");
  }
  // Every sample description in examples/ is among them.
  for (const auto& entry : std::filesystem::directory_iterator(examples)) {
    const std::string ext = entry.path().extension().string();
    if (ext == ".yaml" || ext == ".json") {
      EXPECT_EQ(checked.count(entry.path().filename().string()), 1u) << entry.path();
    }
  }
}

TEST(ZelctlValidateReader, PlacesAreKeptForEveryKeyAndElement) {
  const zelctl::description_text t =
      zelctl::read_description_text("name: a\ntasks:\n  - name: x\n    after: [p, q]\n");
  EXPECT_TRUE(t.errors.empty());
  const auto at = [&t](const std::string& path) {
    const zelctl::text_place p = t.place_of(path);
    return std::to_string(p.line) + ":" + std::to_string(p.column);
  };
  EXPECT_EQ(at(""), "1:1");
  EXPECT_EQ(at("/name"), "1:1");
  EXPECT_EQ(at("/tasks"), "2:1");
  EXPECT_EQ(at("/tasks/0"), "3:5");
  EXPECT_EQ(at("/tasks/0/after/1"), "4:16");
  // A path that the text does not have is placed at its nearest enclosing value.
  EXPECT_EQ(at("/tasks/0/command"), "3:5");
  EXPECT_EQ(at("/tasks/7/name"), "2:1");
  EXPECT_EQ(t.tree.get_list_value("tasks").size(), 1u);
}

TEST(ZelctlValidateReader, ScalarsTakeTheirKinds) {
  const zelctl::description_text t = zelctl::read_description_text(
      "a: 42\nb: -7\nc: true\nd: FALSE\ne: '42'\nf: 1.5\ng: yes\nh: !!str 3\n"
      "i: 99999999999999999999\nj: \"\"\n");
  ASSERT_TRUE(t.errors.empty());
  EXPECT_EQ(t.tree.get_int_value("a"), 42);
  EXPECT_EQ(t.tree.get_int_value("b"), -7);
  EXPECT_TRUE(t.tree.get_bool_value("c"));
  EXPECT_FALSE(t.tree.get_bool_value("d"));
  EXPECT_EQ(t.tree.get_string_value("e"), "42");
  EXPECT_EQ(t.tree.get_string_value("f"), "1.5");
  EXPECT_EQ(t.tree.get_string_value("g"), "yes");
  EXPECT_EQ(t.tree.get_string_value("h"), "3");
  EXPECT_EQ(t.tree.get_string_value("i"), "99999999999999999999");
  EXPECT_EQ(t.tree.get_string_value("j"), "");
}

TEST(ZelctlValidateReader, DeepNestingAndRepeatedAliasesAreBounded) {
  // Lists nested 200 deep inside the configuration.
  const std::string deep = "name: d\nconfig: {x: " + std::string(200, '[') + std::string(200, ']') +
                           "}\ntasks: [{name: t, command: c}]\n";
  const zelctl::description_text d = zelctl::read_description_text(deep);
  ASSERT_EQ(d.errors.size(), 1u);
  EXPECT_EQ(d.errors[0].message, "values nest deeper than 128 levels");
  EXPECT_EQ(d.errors[0].place.line, 2);

  // Each level repeats the one below ten times: 10^8 values if expanded.
  std::string bomb = "a0: &a0 [x, x, x, x, x, x, x, x, x, x]\n";
  for (int i = 1; i <= 8; ++i) {
    const std::string prev = "*a" + std::to_string(i - 1);
    bomb += "a" + std::to_string(i) + ": &a" + std::to_string(i) + " [";
    for (int k = 0; k < 10; ++k) bomb += (k ? ", " : "") + prev;
    bomb += "]\n";
  }
  const zelctl::description_text b = zelctl::read_description_text(bomb);
  ASSERT_EQ(b.errors.size(), 1u);
  EXPECT_EQ(b.errors[0].message, "the description holds more than 1000000 values");
  EXPECT_EQ(b.refused.count(""), 1u);
}

TEST(ZelctlValidateReader, BytesOfAnyKindGiveErrorsNotCrashes) {
  // Every prefix of a valid description, and the description with each byte replaced.
  const std::string text(five_errors);
  for (std::size_t n = 0; n <= text.size(); ++n) {
    const zelctl::description_text t = zelctl::read_description_text(text.substr(0, n));
    const auto converted = zelcapi::convert_description(t.tree);
    for (const auto& e : zelctl::place_errors(t, converted)) {
      EXPECT_GE(e.place.line, 1);
      EXPECT_GE(e.place.column, 1);
      EXPECT_FALSE(e.message.empty());
    }
  }
  for (std::size_t i = 0; i < text.size(); ++i) {
    for (const char c : {'\0', '[', '{', ':', '"', '&', '*', '\t', '\xff'}) {
      std::string changed = text;
      changed[i] = c;
      const zelctl::description_text t = zelctl::read_description_text(changed);
      const auto errors = zelctl::place_errors(t, zelcapi::convert_description(t.tree));
      EXPECT_FALSE(errors.empty()) << i << " " << int{c};
    }
  }
}

}  // namespace

TEST(ZelctlValidateReader, PrintableTextEscapesControlsAndWhatIsNotUtf8) {
  using zelctl::printable_text;
  EXPECT_EQ(printable_text("plain 'text' \\ ok"), "plain 'text' \\ ok");
  EXPECT_EQ(printable_text("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x99\x82"),
            "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x99\x82");
  EXPECT_EQ(printable_text("a\x1b[31mred\x07\x7f"), "a\\x1b[31mred\\x07\\x7f");
  EXPECT_EQ(printable_text(std::string("nul\0end", 7)), "nul\\x00end");
  // C1 controls, a lone continuation byte, overlong forms, a surrogate, past U+10FFFF, cut short.
  EXPECT_EQ(printable_text("\xc2\x9b"
                           "2J"),
            "\\xc2\\x9b2J");
  EXPECT_EQ(printable_text("\x80"), "\\x80");
  EXPECT_EQ(printable_text("\xc0\xaf\xe0\x80\xaf"), "\\xc0\\xaf\\xe0\\x80\\xaf");
  EXPECT_EQ(printable_text("\xed\xa0\x80"), "\\xed\\xa0\\x80");
  EXPECT_EQ(printable_text("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
  EXPECT_EQ(printable_text("ok\xe2\x82"), "ok\\xe2\\x82");
}

TEST(ZelctlValidate, BytesOfTheFileQuotedInErrorsArePrintedEscaped) {
  temp_dir dir;
  const result r =
      validate(dir, "file.yaml", "na\x01\xffme: x\ntasks: [{name: \"x\\e[31my\", command: c}]\n");
  EXPECT_EQ(r.code, 4);
  const std::string& out = r.out;
  EXPECT_NE(out.find(":1:1: /na\\x01\\xffme: unknown key 'na\\x01\\xffme'"), std::string::npos)
      << out;
  EXPECT_NE(out.find(": /tasks/0/name: 'x\\x1b[31my' is not a task name"), std::string::npos)
      << out;
  for (const char c : out) {
    const auto byte = static_cast<unsigned char>(c);
    EXPECT_TRUE(c == '\n' || (byte >= 0x20 && byte < 0x7f)) << int{byte};
  }
}
