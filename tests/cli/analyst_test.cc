// The analyst's commands of the tool (find, timeline, diff, sd, and the
// JSON, recursive and raw forms of the reading commands) on hives of known
// content, one suite per command. Their output on real and damaged hives is
// checked by the mutation sweep (tests/hostile), their bounds on hostile
// hives by tests/bounds.
#include <hivekit/hivekit.h>

#include <random>

#include "tests/cli/cli_fixture.h"

namespace {

using namespace hivekit::cli_test;

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Every --json form on names of every kind and values of every type: the
// typed data, and names that are not valid UTF-16 carried as \u escapes;
// all of it parses.
TEST_F(BuiltHiveTest, JsonFormsCarryTypedDataAndNamesLosslessly) {
  const std::string h = path("built").string();
  const Result data = hivekit({"ls", "--json", h, "data"});
  ASSERT_EQ(data.status, 0) << data.err;
  for (const char* part : {
           R"({"name":"","type":1,"type_name":"REG_SZ","size":6,"data":"df","raw":"640066000000"})",
           R"({"name":"dword","type":4,"type_name":"REG_DWORD","size":4,"data":305419896,"raw":"78563412"})",
           R"("name":"dwordbe","type":5,"type_name":"REG_DWORD_BIG_ENDIAN","size":4,"data":305419896,)",
           R"("name":"qword","type":11,"type_name":"REG_QWORD","size":8,"data":9223372036854775809,)",
           R"("name":"multiempty","type":7,"type_name":"REG_MULTI_SZ","size":12,"data":["a","","b"],)",
           R"("name":"a64","type":32,"type_name":null,"size":64,"data":null,"raw":"61616161)",
           R"("name":"tab\tname%","type":1,)", R"("name":"empty","type":3,"type_name":"REG_BINARY","size":0,)"})
    EXPECT_TRUE(has(data.out, part)) << part << "\n" << data.out;
  const Result names = hivekit({"ls", "--json", h, "names"});
  for (const char* part : {R"("path":"\\names\\lone\ud800x","name":"lone\ud800x",)", R"("name":"ctl\u0001name")",
                           R"("name":"back\\slash")", "\"name\":\"pair\xF0\x9F\x98\x80\""})
    EXPECT_TRUE(has(names.out, part)) << part << "\n" << names.out;
  EXPECT_EQ(hivekit({"get", "--json", h, "times\\new", "v"}).out,
            R"({"path":"\\times\\new","name":"v","type":4,"type_name":"REG_DWORD","size":4,"data":5,"raw":"05000000"})"
            "\n");
  const Result info = hivekit({"info", "--json", h, "TIMES\\NEW"});
  EXPECT_TRUE(has(info.out, R"({"path":"\\times\\new","name":"new","last_write":"2024-03-01T12:00:00.1234567Z",)"
                            R"("last_write_filetime":133537680001234567,"class_name":"Skew1","subkeys":0,"values":1,)"))
      << info.out;
  EXPECT_TRUE(has(info.out, R"x("sddl":"O:BAG:SYD:(A;CI;KA;;;WD)")x")) << info.out;

  // One document per command, or one per line for the streams.
  const std::vector<std::pair<std::vector<std::string>, bool>> forms = {
      {{"info", "--json", h}, false},          {{"info", "--json", h, "times\\new"}, false},
      {{"ls", "--json", h, "names"}, false},   {{"ls", "-r", "--json", h}, true},
      {{"get", "--json", h, "data", "big"}, false}, {{"get", "--class", "--json", h, "times\\new"}, false},
      {{"dump", "--json", h}, true},           {{"sd", "--json", h}, true},
      {{"sd", "--json", h, "names"}, false},   {{"find", "--json", h, "--value", "."}, true},
      {{"timeline", "--json", h}, true},       {{"diff", "--json", h, path("other").string()}, true}};
  writeFile(path("other"), std::string());
  fs::copy_file(h, path("other"), fs::copy_options::overwrite_existing);
  ASSERT_EQ(hivekit({"rm", path("other").string(), "names"}).status, 0);
  std::vector<std::pair<fs::path, bool>> outputs;
  for (const auto& [args, streamed] : forms) {
    const Result r = hivekit(args);
    EXPECT_EQ(r.status, 0) << args[0] << " " << r.err;
    const fs::path file = path("out" + std::to_string(outputs.size()));
    writeFile(file, r.out);
    outputs.emplace_back(file, streamed);
  }
  EXPECT_EQ(countLines(readFile(outputs[6].first), "{"), 14u);  // every key
  const std::string problems = hivekit::test::jsonProblems(outputs);
  if (problems == "no python") GTEST_SKIP() << "no /usr/bin/python3 to parse the JSON";
  EXPECT_EQ(problems, "");
}

TEST_F(BuiltHiveTest, FindMatchesNamesDataTypesAndTimes) {
  const std::string h = path("built").string();
  auto find = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {"find", h});
    const Result r = hivekit(args);
    EXPECT_EQ(r.status, 0) << r.err;
    return r.out;
  };
  EXPECT_EQ(find({"--key", "\xC3\x84RGER"}), "\\names\\\xC3\xA4rger\n");  // case ignored beyond ASCII
  EXPECT_EQ(find({"--key", "name$"}), "\\names\\ctl%0001name\n");
  EXPECT_EQ(find({"--key", "NAME$", "--case-sensitive"}), "");
  EXPECT_EQ(find({"data", "--value", "^a\\d+$"}), "\\data\ta33\n\\data\ta56\n\\data\ta64\n\\data\ta1000\n");
  EXPECT_EQ(find({"--value", "^a", "--type", "binary"}), "\\data\ta33\n\\data\ta56\n\\data\ta1000\n");
  EXPECT_EQ(find({"--data", "^df$"}), "\\data\t(default)\n");
  EXPECT_EQ(find({"--data", "^0x12345678$"}), "\\data\tdword\n\\data\tdwordbe\n");
  EXPECT_EQ(find({"--data", "^(61){33}$"}), "\\data\ta33\n");  // binary data as hex
  EXPECT_EQ(find({"--data", "^$", "--type", "7"}), "\\data\tmultiempty\n");  // the empty string inside
  EXPECT_EQ(find({"--since", "2024-01-01"}), "\\times\\new\n");
  EXPECT_EQ(find({"--until", "2001-01-01T00:00:00Z"}), "\\times\\old\n");
  EXPECT_EQ(find({"times", "--key", "^(new|old)$", "--since", "2001-01-01T00:00:00.0000001"}), "\\times\\new\n");
  const std::string json = find({"--value", "^v$", "--json"});
  EXPECT_EQ(json.rfind(R"({"match":"value","path":"\\times\\new","name":"v","type":4,)", 0), 0u) << json;
}

TEST_F(BuiltHiveTest, TimelineOrdersKeysByLastWrite) {
  const std::string h = path("built").string();
  const std::vector<std::string> newest = lines(hivekit({"timeline", h}).out);
  ASSERT_EQ(newest.size(), 14u);
  EXPECT_EQ(newest.front(), "2024-03-01T12:00:00.1234567Z  \\times\\new");
  EXPECT_EQ(newest[1].substr(0, 30), "2023-07-28T22:27:32.9024486Z  ");
  EXPECT_EQ(newest.back(), "2001-01-01T00:00:00.0000000Z  \\times\\old");
  EXPECT_EQ(lines(hivekit({"timeline", "--oldest-first", h}).out).front(), newest.back());
  EXPECT_EQ(lines(hivekit({"timeline", h, "--since", "2002-01-01", "--until", "2023-12-31"}).out).size(), 12u);
  EXPECT_EQ(hivekit({"timeline", "--tln", h, "times"}).out,
            "1709294400|REG|||\\times\\new\n1690583252|REG|||\\times\n978307200|REG|||\\times\\old\n");
  const std::string body = hivekit({"timeline", "--bodyfile", h, "times\\new"}).out;
  EXPECT_EQ(body.rfind("0|\\times\\new|", 0), 0u) << body;
  EXPECT_TRUE(has(body, "|0|0|0|0|0|1709294400|0|0\n")) << body;
  EXPECT_EQ(lines(hivekit({"timeline", "--csv", h, "times"}).out)[1],
            "2024-03-01T12:00:00.1234567Z,133537680001234567,\\times\\new,Skew1,0,1");
}

TEST_F(BuiltHiveTest, SdDecodesDescriptors) {
  const std::string h = path("built").string();
  Result r = hivekit({"sd", h});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const char* line : {"  SDDL     O:BAG:SYD:(A;CI;KA;;;WD)", "  owner    S-1-5-32-544  Administrators",
                           "  group    S-1-5-18  SYSTEM", "  control  0x8004  DACL present, self-relative",
                           "    allow            CI       KA         0x000f003f  S-1-1-0  Everyone",
                           "  SACL     not present", "1 security descriptors"})
    EXPECT_TRUE(hasLine(r.out, line)) << line << "\n" << r.out;
  r = hivekit({"sd", h, "times\\new"});
  EXPECT_EQ(r.out.rfind("\\times\\new\nsk 0x", 0), 0u) << r.out;
  EXPECT_EQ(hivekit({"sd", h, "missing"}).status, 1);
}

TEST_F(BuiltHiveTest, LsGetAndSetInTheirLongRawAndRecursiveForms) {
  const std::string h = path("built").string();
  Result r = hivekit({"ls", "-l", h, "times"});
  EXPECT_TRUE(has(r.out, "2024-03-01T12:00:00.1234567Z       0 subkeys       1 values  class \"Skew1\"\n")) << r.out;
  r = hivekit({"ls", "-r", h, "times"});
  EXPECT_EQ(r.out, "\\times\n\\times\\new\n  v  REG_DWORD        4  5 (0x5)\n\\times\\old\n");
  EXPECT_EQ(hivekit({"get", "--class", h, "times\\new"}).out, "Skew1\n");
  EXPECT_EQ(hivekit({"get", "--class", h, "times"}).out, "\n");

  // --raw writes the bytes as stored; --from-file stores a file's bytes.
  const std::string big = hivekit({"get", "--raw", h, "data", "big"}).out;
  ASSERT_EQ(big.size(), 20000u);
  EXPECT_EQ(static_cast<unsigned char>(big[300]), 300 % 251);
  writeFile(path("blob"), big + big);
  const std::string copy = path("copy").string();
  fs::copy_file(h, copy);
  ASSERT_EQ(hivekit({"set", copy, "data", "blob", "3", "--from-file", path("blob").string()}).status, 0);
  EXPECT_TRUE(hivekit({"get", "--raw", copy, "data", "blob"}).out == big + big);
  // Every type by name or number: text for link, hex bytes for the rest.
  ASSERT_EQ(hivekit({"set", copy, "data", "lnk", "link", "\\Registry\\Machine"}).status, 0);
  EXPECT_EQ(hivekit({"get", "--json", copy, "data", "lnk"}).out,
            R"({"path":"\\data","name":"lnk","type":6,"type_name":"REG_LINK","size":34,"data":"\\Registry\\Machine",)"
            R"("raw":"5c00520065006700690073007400720079005c004d0061006300680069006e006500"})"
            "\n");
  ASSERT_EQ(hivekit({"set", copy, "data", "n", "none", ""}).status, 0);
  EXPECT_EQ(hivekit({"get", "--raw", copy, "data", "n"}).out, "");
  ASSERT_EQ(hivekit({"set", copy, "data", "r", "resource_list", "0102"}).status, 0);
  EXPECT_EQ(hivekit({"get", "--raw", copy, "data", "r"}).out, std::string("\x01\x02"));
}

// A patch made by diff --reg, imported into the first hive, makes it list
// as the second (last write times and the order of values aside), for
// random changes of every kind.
TEST_F(CliTest, DiffPatchMakesTheFirstHiveEqualTheSecond) {
  HiveBuilder b(5);
  const u32 root = b.root();
  for (const char16_t* top : {u"Alpha", u"Beta", u"Gamma"}) {
    const u32 k = b.key(root, top);
    b.value(k, u"s", 1, {'x', 0, 0, 0});
    b.value(b.key(k, u"Child"), u"d", 4, {1, 0, 0, 0});
  }
  const std::string base = path("base").string(), a = path("a").string(), b2 = path("b").string();
  writeFile(base, b.build());

  // Known changes read in each form.
  fs::copy_file(base, b2);
  ASSERT_EQ(hivekit({"rm", b2, "Beta"}).status, 0);
  ASSERT_EQ(hivekit({"set", b2, "Alpha", "s", "sz", "y"}).status, 0);
  ASSERT_EQ(hivekit({"set", b2, "Gamma\\Child", "new", "dword", "7"}).status, 0);
  ASSERT_EQ(hivekit({"rm", b2, "Gamma", "s"}).status, 0);
  EXPECT_EQ(hivekit({"diff", base, b2}).out,
            "~ value \\Alpha  \"s\"  REG_SZ \"x\" -> REG_SZ \"y\"\n"
            "- key   \\Beta\n"
            "- value \\Gamma  \"s\"\n"
            "+ value \\Gamma\\Child  \"new\"  REG_DWORD 7 (0x7)\n");
  EXPECT_EQ(hivekit({"diff", base, b2, "Gamma"}).out, "- value \\Gamma  \"s\"\n+ value \\Gamma\\Child  \"new\"  REG_DWORD 7 (0x7)\n");
  EXPECT_EQ(countLines(hivekit({"diff", "--json", base, b2}).out, "{\"change\":"), 4u);
  EXPECT_EQ(hivekit({"diff", base, base}).out, "");

  // The listing without last write times, and with each key's values in
  // name order: registry text carries neither (an import adds a changed
  // value at the end of its key's list).
  auto comparable = [&](const std::string& hive) {
    std::string out;
    std::vector<std::string> values;
    auto flush = [&] {
      std::sort(values.begin(), values.end());
      for (const std::string& v : values) out += v + "\n";
      values.clear();
    };
    for (std::string line : lines(hivekit({"dump", hive}).out)) {
      if (line.rfind("V\t", 0) == 0) {
        values.push_back(line);
        continue;
      }
      flush();
      line.erase(line.find('\t', 2), 17);
      out += line + "\n";
    }
    flush();
    return out;
  };
  std::mt19937 rng(7);
  auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
  const std::vector<std::string> keyNames = {"Alpha", "beta", "Delta", "Child", "x"};
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    fs::copy_file(base, a, fs::copy_options::overwrite_existing);
    fs::copy_file(base, b2, fs::copy_options::overwrite_existing);
    {
      hivekit::Result<hivekit::Hive> hive = hivekit::Hive::open(b2, {.writable = true});
      ASSERT_TRUE(hive) << hive.status().message();
      for (int change = 0; change < 25; ++change) {
        std::vector<hivekit::Key> keys{hive->root()};
        for (size_t i = 0; i < keys.size(); ++i)
          for (const hivekit::Key& k : keys[i].subkeys()) keys.push_back(k);
        hivekit::Key k = keys[pick(keys.size())];
        const std::string name = keyNames[pick(keyNames.size())];
        switch (pick(5)) {
          case 0:
            (void)k.create_key(name + "\\" + keyNames[pick(keyNames.size())]);
            break;
          case 1:
            if (k != hive->root()) (void)hive->root().delete_key(k.path(), true);
            break;
          case 2: {
            // Any type; strings with and without a proper terminator.
            std::vector<std::byte> bytes(pick(3) == 0 ? 20000 : pick(12));
            for (std::byte& x : bytes) x = static_cast<std::byte>('a' + pick(3));
            const hivekit::ValueType types[] = {hivekit::ValueType::sz, hivekit::ValueType::binary,
                                                hivekit::ValueType::dword, hivekit::ValueType::multi_sz,
                                                hivekit::ValueType::none, static_cast<hivekit::ValueType>(0x20)};
            (void)k.set_value(name, types[pick(6)], bytes);
            break;
          }
          case 3:
            (void)k.set_string(name, std::string(pick(5), 'q'));
            break;
          default:
            for (const hivekit::Value& v : k.values()) {
              (void)v.key().delete_value(v.name());
              break;
            }
        }
      }
      ASSERT_TRUE(hive->close());
    }
    const Result patch = hivekit({"diff", "--reg", a, b2});
    ASSERT_EQ(patch.status, 0) << patch.err;
    writeFile(path("patch.reg"), patch.out);
    const Result imported = hivekit({"import", a, path("patch.reg").string()});
    ASSERT_EQ(imported.status, 0) << imported.err;
    EXPECT_EQ(comparable(a), comparable(b2));
    EXPECT_EQ(hivekit({"diff", a, b2}).out, "");
  }
}

}  // namespace
