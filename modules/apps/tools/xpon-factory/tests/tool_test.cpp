#include "xpon/factory/tlvinfo.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "xpon/test/temp_dir.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace xpon::factory {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

// QD7R-LC-8 / SN0001 / 00:11:22:33:44:55, with its CRC-32 worked out independently with zlib.
const Bytes kReferenceImage = {0x54, 0x6c, 0x76, 0x49, 0x6e, 0x66, 0x6f, 0x00, 0x01, 0x00, 0x21, 0x21, 0x09, 0x51, 0x44,
                               0x37, 0x52, 0x2d, 0x4c, 0x43, 0x2d, 0x38, 0x23, 0x06, 0x53, 0x4e, 0x30, 0x30, 0x30, 0x31,
                               0x24, 0x06, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0xfe, 0x04, 0xe0, 0x1b, 0x95, 0x62};

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

Bytes read_bytes(const fs::path& path) {
  const std::string text = slurp(path);
  return {text.begin(), text.end()};
}

void write_bytes(const fs::path& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

class FactoryTool : public ::testing::Test {
 protected:
  // Runs the built program with the arguments and collects its exit status and both outputs.
  ToolRun run(const std::vector<std::string>& args) const {
    const fs::path out_file = dir_ / "stdout.txt";
    const fs::path err_file = dir_ / "stderr.txt";
    std::vector<std::string> words = {XPON_FACTORY_PROGRAM};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
      argv.push_back(word.data());
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = 0;
    ToolRun result;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
      ADD_FAILURE() << "cannot start " << argv[0];
      return result;
    }
    int status = 0;
    if (::waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
      result.status = WEXITSTATUS(status);
    }
    result.out = slurp(out_file);
    result.err = slurp(err_file);
    return result;
  }

  std::string path(const std::string& name) const { return (dir_ / name).string(); }

  xpon::test::TempDir temp_dir_{"factory-tool-test"};
  fs::path dir_ = temp_dir_.path();
};

TEST_F(FactoryTool, HelpExitsZeroAndListsTheCommands) {
  const ToolRun result = run({"--help"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.out.find("make"), std::string::npos);
  EXPECT_NE(result.out.find("show"), std::string::npos);
  EXPECT_NE(result.out.find("Exit status: 0 done"), std::string::npos);
}

TEST_F(FactoryTool, MakeHelpListsTheFields) {
  const ToolRun result = run({"make", "--help"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.out.find("--product"), std::string::npos);
  EXPECT_NE(result.out.find("--serial"), std::string::npos);
  EXPECT_NE(result.out.find("--pad-to"), std::string::npos);
}

TEST_F(FactoryTool, NoCommandIsAUsageError) {
  const ToolRun result = run({});
  EXPECT_EQ(result.status, 2);
  EXPECT_FALSE(result.err.empty());
}

TEST_F(FactoryTool, UnknownCommandIsAUsageError) {
  EXPECT_EQ(run({"burn"}).status, 2);
}

TEST_F(FactoryTool, UnknownOptionIsAUsageError) {
  EXPECT_EQ(run({"make", "--product", "QD7R-LC-8", "--colour", "red", "-o", path("x.bin")}).status, 2);
  EXPECT_FALSE(fs::exists(path("x.bin")));
}

TEST_F(FactoryTool, MakeWithoutProductIsAUsageError) {
  const ToolRun result = run({"make", "-o", path("x.bin")});
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("--product is required"), std::string::npos) << result.err;
  EXPECT_FALSE(fs::exists(path("x.bin")));
}

TEST_F(FactoryTool, MakeWithoutOutputIsAUsageError) {
  const ToolRun result = run({"make", "--product", "QD7R-LC-8"});
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("--output is required"), std::string::npos) << result.err;
}

TEST_F(FactoryTool, MakeWithEmptyProductIsAUsageError) {
  const ToolRun result = run({"make", "--product", "", "-o", path("x.bin")});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "xpon-factory: --product may not be empty\n");
}

TEST_F(FactoryTool, MakeWithBadMacIsAUsageError) {
  const ToolRun result = run({"make", "--product", "QD7R-LC-8", "--mac", "00:11:22", "-o", path("x.bin")});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "xpon-factory: --mac: expected six hex pairs like 00:11:22:33:44:55, got '00:11:22'\n");
  EXPECT_FALSE(fs::exists(path("x.bin")));
}

TEST_F(FactoryTool, MakeWithBadDateIsAUsageError) {
  const ToolRun result = run({"make", "--product", "QD7R-LC-8", "--date", "2021-05-21", "-o", path("x.bin")});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "xpon-factory: --date: expected MM/DD/YYYY hh:mm:ss, got '2021-05-21'\n");
}

TEST_F(FactoryTool, MakeWithBadCountryIsAUsageError) {
  const ToolRun result = run({"make", "--product", "QD7R-LC-8", "--country", "DEU", "-o", path("x.bin")});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "xpon-factory: --country: expected a two-letter code, got 'DEU'\n");
}

TEST_F(FactoryTool, MakeWithDeviceVersionOutOfRangeIsAUsageError) {
  EXPECT_EQ(run({"make", "--product", "QD7R-LC-8", "--device-version", "256", "-o", path("x.bin")}).status, 2);
  EXPECT_EQ(run({"make", "--product", "QD7R-LC-8", "--device-version", "two", "-o", path("x.bin")}).status, 2);
  EXPECT_FALSE(fs::exists(path("x.bin")));
}

TEST_F(FactoryTool, MakeWithTooLongValueIsAUsageError) {
  const ToolRun result =
      run({"make", "--product", "QD7R-LC-8", "--serial", std::string(256, 'S'), "-o", path("x.bin")});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "xpon-factory: Serial Number (0x23) value is 256 bytes, at most 255 fit\n");
}

TEST_F(FactoryTool, MakeWritesTheReferenceImage) {
  const ToolRun result =
      run({"make", "--product", "QD7R-LC-8", "--serial", "SN0001", "--mac", "00:11:22:33:44:55", "-o", path("a.bin")});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "Wrote " + path("a.bin") + ": 44-byte image\n");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(read_bytes(path("a.bin")), kReferenceImage);
}

TEST_F(FactoryTool, MakePadsLikeAnErasedEeprom) {
  const ToolRun result = run({"make", "--product", "QD7R-LC-8", "--serial", "SN0001", "--mac", "00:11:22:33:44:55",
                              "--pad-to", "256", "-o", path("a.bin")});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "Wrote " + path("a.bin") + ": 44-byte image padded to 256 bytes\n");
  Bytes expected = kReferenceImage;
  expected.resize(256, 0xFF);
  EXPECT_EQ(read_bytes(path("a.bin")), expected);
}

TEST_F(FactoryTool, PaddingSmallerThanTheImageIsAUsageError) {
  const ToolRun result = run({"make", "--product", "QD7R-LC-8", "--pad-to", "16", "-o", path("a.bin")});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "xpon-factory: --pad-to 16 is smaller than the 28-byte image\n");
  EXPECT_FALSE(fs::exists(path("a.bin")));
}

TEST_F(FactoryTool, UnwritableOutputFails) {
  const std::string target = path("missing/a.bin");
  const ToolRun result = run({"make", "--product", "QD7R-LC-8", "-o", target});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "xpon-factory: cannot write " + target + ": No such file or directory\n");
}

TEST_F(FactoryTool, ShowPrintsTheTableOfAValidImage) {
  write_bytes(path("a.bin"), kReferenceImage);
  const ToolRun result = run({"show", path("a.bin")});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, "TlvInfo image " + path("a.bin") +
                            "\n"
                            "Version: 1\n"
                            "Total length: 33\n"
                            "TLV name             Code Length Value\n"
                            "-------------------- ---- ------ -----\n"
                            "Product Name         0x21      9 QD7R-LC-8\n"
                            "Serial Number        0x23      6 SN0001\n"
                            "Base MAC Address     0x24      6 00:11:22:33:44:55\n"
                            "CRC-32               0xFE      4 0xE01B9562\n");
}

TEST_F(FactoryTool, ShowJsonOfAValidImage) {
  write_bytes(path("a.bin"), kReferenceImage);
  const ToolRun result = run({"show", path("a.bin"), "--json"});
  EXPECT_EQ(result.status, 0) << result.err;
  const nlohmann::json document = nlohmann::json::parse(result.out);
  EXPECT_EQ(document["file"], path("a.bin"));
  EXPECT_EQ(document["valid"], true);
  EXPECT_EQ(document["version"], 1);
  EXPECT_EQ(document["total_length"], 33);
  EXPECT_EQ(document["crc32"], "0xE01B9562");
  EXPECT_FALSE(document.contains("reason"));
  ASSERT_EQ(document["tlvs"].size(), 4U);
  EXPECT_EQ(document["tlvs"][0],
            nlohmann::json::parse(R"({"code": "0x21", "name": "Product Name", "length": 9, "value": "QD7R-LC-8"})"));
  EXPECT_EQ(document["tlvs"][2]["value"], "00:11:22:33:44:55");
  EXPECT_EQ(document["tlvs"][3]["value"], "0xE01B9562");
}

TEST_F(FactoryTool, EveryFieldRoundTripsThroughMakeAndShow) {
  const ToolRun made = run({"make",
                            "--product",
                            "QD7R-FC-2",
                            "--part-number",
                            "PN-4711-02",
                            "--serial",
                            "QD7R21050017",
                            "--mac",
                            "a8-f9-4b-01-02-03",
                            "--date",
                            "05/21/2021 13:45:07",
                            "--device-version",
                            "3",
                            "--label-revision",
                            "R03",
                            "--platform",
                            "arm64-qd7r-fc",
                            "--onie-version",
                            "2021.05",
                            "--mac-count",
                            "258",
                            "--manufacturer",
                            "Line Card Works",
                            "--country",
                            "DE",
                            "--vendor",
                            "Optical Access",
                            "--diag-version",
                            "1.4.0",
                            "--service-tag",
                            "ST-99",
                            "-o",
                            path("f.bin")});
  ASSERT_EQ(made.status, 0) << made.err;
  const ToolRun shown = run({"show", path("f.bin"), "--json"});
  ASSERT_EQ(shown.status, 0) << shown.err;
  const nlohmann::json tlvs = nlohmann::json::parse(shown.out)["tlvs"];
  const std::vector<std::pair<std::string, nlohmann::json>> expected = {
      {"Product Name", "QD7R-FC-2"},
      {"Part Number", "PN-4711-02"},
      {"Serial Number", "QD7R21050017"},
      {"Base MAC Address", "A8:F9:4B:01:02:03"},
      {"Manufacture Date", "05/21/2021 13:45:07"},
      {"Device Version", 3},
      {"Label Revision", "R03"},
      {"Platform Name", "arm64-qd7r-fc"},
      {"ONIE Version", "2021.05"},
      {"MAC Addresses", 258},
      {"Manufacturer", "Line Card Works"},
      {"Country Code", "DE"},
      {"Vendor Name", "Optical Access"},
      {"Diag Version", "1.4.0"},
      {"Service Tag", "ST-99"},
  };
  ASSERT_EQ(tlvs.size(), expected.size() + 1);
  for (std::size_t index = 0; index < expected.size(); ++index) {
    EXPECT_EQ(tlvs[index]["name"], expected[index].first);
    EXPECT_EQ(tlvs[index]["value"], expected[index].second) << expected[index].first;
  }
  EXPECT_EQ(tlvs[expected.size()]["name"], "CRC-32");
}

TEST_F(FactoryTool, ShowRefusesABadCrc) {
  Bytes bytes = kReferenceImage;
  bytes[21] = '9';
  write_bytes(path("bad.bin"), bytes);
  const ToolRun result = run({"show", path("bad.bin")});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            path("bad.bin") + ": invalid TlvInfo image: CRC-32 mismatch: stored 0xe01b9562, computed 0x37f9153a\n");
}

TEST_F(FactoryTool, ShowJsonRefusesAnUnknownVersion) {
  Bytes bytes = kReferenceImage;
  bytes[8] = 2;
  write_bytes(path("v2.bin"), bytes);
  const ToolRun result = run({"show", "--json", path("v2.bin")});
  EXPECT_EQ(result.status, 1);
  const nlohmann::json document = nlohmann::json::parse(result.out);
  EXPECT_EQ(document["valid"], false);
  EXPECT_EQ(document["reason"], "invalid TlvInfo image: unsupported version 2 (expected 1)");
  EXPECT_FALSE(document.contains("tlvs"));
}

TEST_F(FactoryTool, ShowRefusesATruncatedImage) {
  write_bytes(path("short.bin"), Bytes(kReferenceImage.begin(), kReferenceImage.begin() + 30));
  const ToolRun result = run({"show", path("short.bin")});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, path("short.bin") +
                            ": invalid TlvInfo image: total length 33 runs past the end of the image (19 bytes "
                            "follow the header)\n");
}

TEST_F(FactoryTool, ShowDecodesButRefusesAnImageWithoutProductName) {
  const std::vector<Tlv> tlvs = {Tlv{0x23, {'S', 'N'}, 0}};
  write_bytes(path("noname.bin"), *encode_image(tlvs).bytes);
  const ToolRun result = run({"show", path("noname.bin")});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.out.find("Serial Number        0x23      2 SN\n"), std::string::npos) << result.out;
  EXPECT_EQ(result.err, path("noname.bin") + ": not valid factory data: Product Name TLV (0x21) is missing\n");
}

TEST_F(FactoryTool, ShowEscapesUnprintableText) {
  const std::vector<Tlv> tlvs = {Tlv{0x21, {'Q', 'D', 0xC3, 0x28}, 0}, Tlv{0xFD, {0x00, 0x12}, 0}};
  write_bytes(path("odd.bin"), *encode_image(tlvs).bytes);
  const ToolRun text = run({"show", path("odd.bin")});
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_NE(text.out.find("Product Name         0x21      4 QD\\xc3(\n"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("Vendor Extension     0xFD      2 0x0012\n"), std::string::npos) << text.out;
  const ToolRun json = run({"show", path("odd.bin"), "--json"});
  EXPECT_EQ(json.status, 0) << json.err;
  EXPECT_EQ(nlohmann::json::parse(json.out)["tlvs"][0]["value"], "QD\\xc3(");
}

TEST_F(FactoryTool, ShowNotesACutField) {
  const std::vector<Tlv> tlvs = {Tlv{0x21, {'Q'}, 0}, Tlv{0x23, Bytes(40, 'S'), 0}};
  write_bytes(path("long.bin"), *encode_image(tlvs).bytes);
  const ToolRun result = run({"show", path("long.bin")});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, path("long.bin") + ": note: Serial Number TLV (0x23) cut from 40 to 31 bytes\n");
}

TEST_F(FactoryTool, ShowOfAMissingFileFails) {
  const ToolRun result = run({"show", path("none.bin")});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "xpon-factory: cannot read " + path("none.bin") + ": No such file or directory\n");
}

TEST_F(FactoryTool, ShowOfADirectoryFails) {
  const ToolRun result = run({"show", dir_.string()});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "xpon-factory: cannot read " + dir_.string() + ": Is a directory\n");
}

TEST_F(FactoryTool, ShowWithoutFileIsAUsageError) {
  const ToolRun result = run({"show"});
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("FILE is required"), std::string::npos) << result.err;
}

}  // namespace
}  // namespace xpon::factory
