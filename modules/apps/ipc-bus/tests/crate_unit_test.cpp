// The crate transport's settings, its forwarding decision and its late-joiner cache.

#include "crate.hpp"
#include "xpon/test/temp_dir.hpp"

#include <sys/stat.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <string>

namespace xpon::ipc_bus {
namespace {

using ipc::Key;

constexpr const char* kPath = "crate.toml";

std::string error_of(const std::string& text) {
  try {
    parse_crate_config(text, kPath);
  } catch (const CrateConfigError& error) {
    return error.what();
  }
  return "no error";
}

class CrateKeyFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto [public_path, secret_path] = generate_key_files(dir.file("board"));
    board_public = public_path;
    board_secret = secret_path;
    peer_public = generate_key_files(dir.file("peer")).first;
  }
  test::TempDir dir{"crate-keys"};
  std::string board_public;
  std::string board_secret;
  std::string peer_public;
};

TEST(CrateConfig, AMissingFileLeavesTheTransportOff) {
  test::TempDir dir;
  const CrateConfig config = load_crate_config(dir.file("none.toml"));
  EXPECT_FALSE(config.enabled);
  EXPECT_EQ(listen_refusal(config), "");
}

TEST(CrateConfig, TheShippedFileIsValidAndOff) {
  const CrateConfig config = load_crate_config(XPON_SHIPPED_CRATE_CONFIG);
  EXPECT_FALSE(config.enabled);
  EXPECT_EQ(config.keys, kDefaultCrateKeys);
}

TEST(CrateConfig, AFileWithoutEnabledIsOff) {
  const CrateConfig config = parse_crate_config("slot = 5\n", kPath);
  EXPECT_FALSE(config.enabled);
}

TEST(CrateConfig, AGoodFileIsRead) {
  const CrateConfig config = parse_crate_config(R"(
enabled = true
slot = 5
listen = "tcp://127.0.0.1:15600"
peers = ["tcp://127.0.0.1:15601", "tcp://[::1]:15602"]
keys = ["15500:15537", "0x38A4:0x38A9"]
)",
                                                kPath);
  EXPECT_TRUE(config.enabled);
  EXPECT_EQ(config.slot, 5);
  EXPECT_EQ(config.listen, "tcp://127.0.0.1:15600");
  ASSERT_EQ(config.peers.size(), 2U);
  EXPECT_EQ(config.peers[0].address, "tcp://127.0.0.1:15601");
  EXPECT_EQ(config.peers[1].address, "tcp://[::1]:15602");
  EXPECT_FALSE(config.peers[0].public_key.has_value());
  EXPECT_EQ(config.keys, (std::set<Key>{{15500, 15537}, {14500, 14505}}));
  EXPECT_FALSE(config.insecure);
  EXPECT_FALSE(config.curve.has_value());
  EXPECT_EQ(listen_refusal(config), "");
}

TEST(CrateConfig, TheDefaultKeysAreTheFanRatesAndTheMastershipEvent) {
  const CrateConfig config = parse_crate_config("enabled = true\nslot = 1\nlisten = \"tcp://127.0.0.1:1\"\n", kPath);
  EXPECT_EQ(config.keys, (std::set<Key>{{15500, 15537}, {15500, 15538}, {14500, 14505}}));
  EXPECT_TRUE(config.peers.empty());
}

TEST(CrateConfig, EachBadValueIsNamed) {
  const std::string head = "enabled = true\nslot = 5\nlisten = \"tcp://127.0.0.1:15600\"\n";
  EXPECT_EQ(error_of("enabled = 1\n"), "crate configuration crate.toml: enabled must be true or false");
  EXPECT_EQ(error_of("insecure = \"yes\"\n"), "crate configuration crate.toml: insecure must be true or false");
  EXPECT_EQ(error_of("slot = 65534\n"), "crate configuration crate.toml: slot must be a number from 0 to 65533");
  EXPECT_EQ(error_of("slot = -1\n"), "crate configuration crate.toml: slot must be a number from 0 to 65533");
  EXPECT_EQ(error_of("slot = \"5\"\n"), "crate configuration crate.toml: slot must be a number from 0 to 65533");
  EXPECT_EQ(error_of("listen = \"ipc:///tmp/x\"\n"),
            "crate configuration crate.toml: listen \"ipc:///tmp/x\" is not tcp://host:port (port 1 to 65535)");
  EXPECT_EQ(
      error_of("listen = \"tcp://127.0.0.1:70000\"\n"),
      "crate configuration crate.toml: listen \"tcp://127.0.0.1:70000\" is not tcp://host:port (port 1 to 65535)");
  EXPECT_EQ(error_of("listen = 5\n"), "crate configuration crate.toml: listen must be a string");
  EXPECT_EQ(error_of("peers = \"tcp://127.0.0.1:1\"\n"), "crate configuration crate.toml: peers must be a list");
  EXPECT_EQ(error_of("peers = [\"tcp://127.0.0.1\"]\n"),
            "crate configuration crate.toml: peers[0] \"tcp://127.0.0.1\" is not tcp://host:port (port 1 to 65535)");
  EXPECT_EQ(error_of("peers = [5]\n"),
            "crate configuration crate.toml: peers[0] must be an address or a table with address and public_key");
  EXPECT_EQ(error_of("peers = [{public_key = \"/x\"}]\n"), "crate configuration crate.toml: peers[0] has no address");
  EXPECT_EQ(error_of("peers = [{address = \"tcp://h:1\", key = 1}]\n"),
            "crate configuration crate.toml: unknown key peers[0].key");
  EXPECT_EQ(error_of("keys = [\"15500\"]\n"),
            "crate configuration crate.toml: keys: \"15500\" is not GROUP:ID (numbers up to 65535)");
  EXPECT_EQ(error_of("keys = [\"15500:70000\"]\n"),
            "crate configuration crate.toml: keys: \"15500:70000\" is not GROUP:ID (numbers up to 65535)");
  EXPECT_EQ(
      error_of("keys = [\"15500:0xFFFF\"]\n"),
      "crate configuration crate.toml: keys: \"15500:0xFFFF\" names no single event (id 65535 is the whole group)");
  EXPECT_EQ(error_of("keys = \"15500:15537\"\n"),
            "crate configuration crate.toml: keys must be a list of \"GROUP:ID\" strings");
  EXPECT_EQ(error_of("port = 1\n"), "crate configuration crate.toml: unknown key port");
  EXPECT_EQ(error_of("enabled = true\nlisten = \"tcp://127.0.0.1:1\"\n"),
            "crate configuration crate.toml: slot is missing");
  EXPECT_EQ(error_of("enabled = true\nslot = 1\n"), "crate configuration crate.toml: listen is missing");
  EXPECT_EQ(error_of("slot = [\n"),
            "crate configuration crate.toml: syntax error at line 1, column 10: "
            "Error while parsing array: encountered end-of-file");
  EXPECT_EQ(error_of(head + "[curve]\npublic_key = \"/x\"\n"),
            "crate configuration crate.toml: curve needs both public_key and secret_key");
  EXPECT_EQ(error_of(head + "curve = 1\n"),
            "crate configuration crate.toml: curve must be a table with public_key and secret_key");
  EXPECT_EQ(error_of(head + "[curve]\npublic = \"/x\"\n"), "crate configuration crate.toml: unknown key curve.public");
}

TEST_F(CrateKeyFiles, CurveKeysAreReadFromTheirFiles) {
  const CrateConfig config = parse_crate_config(fmt::format(R"(
enabled = true
slot = 5
listen = "tcp://10.1.1.5:15600"
peers = [{{address = "tcp://10.1.1.6:15600", public_key = "{}"}}]
[curve]
public_key = "{}"
secret_key = "{}"
)",
                                                            peer_public, board_public, board_secret),
                                                kPath);
  ASSERT_TRUE(config.curve.has_value());
  EXPECT_EQ(config.curve->public_key, read_key_file(board_public));
  EXPECT_EQ(config.curve->secret_key, read_key_file(board_secret));
  EXPECT_EQ(config.curve->public_key.size(), 40U);
  ASSERT_EQ(config.peers.size(), 1U);
  EXPECT_EQ(config.peers[0].public_key, read_key_file(peer_public));
  EXPECT_NE(config.peers[0].public_key, config.curve->public_key);
  // With keys the board may listen on any address.
  EXPECT_EQ(listen_refusal(config), "");
}

TEST_F(CrateKeyFiles, BadKeyFilesAreNamed) {
  const std::string curve =
      fmt::format("[curve]\npublic_key = \"{}\"\nsecret_key = \"{}\"\n", board_public, board_secret);
  const std::string head = "enabled = true\nslot = 5\nlisten = \"tcp://127.0.0.1:15600\"\n";
  EXPECT_EQ(error_of(head + "peers = [\"tcp://127.0.0.1:15601\"]\n" + curve),
            "crate configuration crate.toml: peers[0] (tcp://127.0.0.1:15601) has no public_key, which [curve] needs");
  const std::string broken = dir.write("broken.pub", "not a key\n");
  EXPECT_EQ(
      error_of(head + fmt::format("peers = [{{address = \"tcp://h:1\", public_key = \"{}\"}}]\n", broken) + curve),
      fmt::format("crate configuration crate.toml: crate key file {}: not a key of 40 Z85 characters", broken));
  const std::string missing = dir.file("missing.pub");
  EXPECT_EQ(error_of(head + fmt::format("[curve]\npublic_key = \"{}\"\nsecret_key = \"{}\"\n", missing, board_secret)),
            fmt::format("crate configuration crate.toml: crate key file: cannot read {}: No such file or directory",
                        missing));
}

TEST_F(CrateKeyFiles, GeneratedKeysAreOwnerOnly) {
  struct stat info {};
  ASSERT_EQ(::stat(board_secret.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0600U);
  ASSERT_EQ(::stat(board_public.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0600U);
  ASSERT_EQ(::stat(dir.file("board").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0700U);
  EXPECT_NE(read_key_file(board_public), read_key_file(board_secret));
}

TEST(CrateConfig, WithoutKeysOnlyLoopbackAndLinkLocalAreAllowed) {
  CrateConfig config;
  config.enabled = true;
  for (const char* listen : {"tcp://127.0.0.1:1", "tcp://127.9.9.9:1", "tcp://[::1]:1", "tcp://169.254.3.4:1",
                             "tcp://[fe80::1%eth1]:1", "tcp://localhost:1", "tcp://lo:1"}) {
    config.listen = listen;
    EXPECT_EQ(listen_refusal(config), "") << listen;
  }
  for (const char* listen : {"tcp://10.0.0.5:1", "tcp://*:1", "tcp://eth1:1", "tcp://[2001:db8::1]:1"}) {
    config.listen = listen;
    EXPECT_NE(listen_refusal(config), "") << listen;
  }
  config.listen = "tcp://10.0.0.5:15600";
  EXPECT_EQ(listen_refusal(config),
            "refusing to listen on tcp://10.0.0.5:15600 without CURVE keys: any host of that network could read the "
            "crate's events and inject its own; name the board's keys in [curve] or set insecure = true");
  config.insecure = true;
  EXPECT_EQ(listen_refusal(config), "");
}

TEST(CrateConfig, KeysAndAddressesAreParsed) {
  EXPECT_EQ(parse_key("15500:15537"), (Key{15500, 15537}));
  EXPECT_EQ(parse_key("0x3C8C:0x3CB1"), (Key{15500, 15537}));
  EXPECT_FALSE(parse_key("15500-15537").has_value());
  EXPECT_FALSE(parse_key(":1").has_value());
  EXPECT_FALSE(parse_key("1:x").has_value());
  EXPECT_EQ(split_tcp_address("tcp://10.0.0.1:15600"), (std::make_pair(std::string("10.0.0.1"), std::uint16_t{15600})));
  EXPECT_EQ(split_tcp_address("tcp://[fe80::1]:9"), (std::make_pair(std::string("fe80::1"), std::uint16_t{9})));
  EXPECT_FALSE(split_tcp_address("tcp://:9").has_value());
  EXPECT_FALSE(split_tcp_address("tcp://h:0").has_value());
  EXPECT_FALSE(split_tcp_address("udp://h:9").has_value());
}

class Forwarding : public ::testing::Test {
 protected:
  Forwarding() {
    config.enabled = true;
    config.slot = 5;
  }
  CrateConfig config;
};

TEST_F(Forwarding, CrateWideLocalEventsGoEverywhere) {
  const auto decision = decide_forwarding(Origin::Local, Key{15500, 15537}, 0x00190005, config);
  EXPECT_TRUE(decision.to_local);
  EXPECT_TRUE(decision.to_crate);
  EXPECT_FALSE(decision.fill_in_slot);
  EXPECT_FALSE(decision.foreign_slot);
}

TEST_F(Forwarding, OtherKeysStayOnTheBoard) {
  for (const Key key : {Key{15500, 15539}, Key{9000, 9005}, Key{14500, 14504}}) {
    const auto decision = decide_forwarding(Origin::Local, key, 0x00190005, config);
    EXPECT_TRUE(decision.to_local);
    EXPECT_FALSE(decision.to_crate);
  }
}

TEST_F(Forwarding, ThisBoardsSlotWordGetsTheBoardsSlot) {
  const auto decision = decide_forwarding(Origin::Local, Key{14500, 14505}, 0x0015FFFE, config);
  EXPECT_TRUE(decision.to_crate);
  EXPECT_TRUE(decision.fill_in_slot);
  EXPECT_EQ(crate_source(0x0015FFFE, 5), 0x00150005U);
  EXPECT_EQ(crate_source(0x00150007, 5), 0x00150007U);
}

TEST_F(Forwarding, AnotherBoardsSlotIsNotSentInItsName) {
  const auto decision = decide_forwarding(Origin::Local, Key{15500, 15538}, 0x00190006, config);
  EXPECT_TRUE(decision.to_local);
  EXPECT_FALSE(decision.to_crate);
  EXPECT_TRUE(decision.foreign_slot);
}

TEST_F(Forwarding, EventsFromTheCrateAreDeliveredButNeverSentOn) {
  for (const ipc::Address source : {0x00190006U, 0x00190005U, 0x0019FFFEU}) {
    const auto decision = decide_forwarding(Origin::Crate, Key{15500, 15537}, source, config);
    EXPECT_TRUE(decision.to_local);
    EXPECT_FALSE(decision.to_crate);
  }
  // A key that is not crate-wide has no business coming from another board.
  const auto other = decide_forwarding(Origin::Crate, Key{9000, 9005}, 0x00190006, config);
  EXPECT_FALSE(other.to_local);
  EXPECT_FALSE(other.to_crate);
}

TEST_F(Forwarding, WithTheTransportOffNothingCrosses) {
  config.enabled = false;
  const auto decision = decide_forwarding(Origin::Local, Key{15500, 15537}, 0x00190005, config);
  EXPECT_TRUE(decision.to_local);
  EXPECT_FALSE(decision.to_crate);
}

TEST(LateJoinerCache, KeepsTheNewestEventPerSlotAndKey) {
  // No keys sharing a state: each key is a state of its own.
  LateJoinerCache cache{StateKeys{}};
  EXPECT_EQ(cache.find(5, Key{15500, 15537}), nullptr);
  cache.remember(5, Key{15500, 15537}, {{1}, {2}, {}});
  cache.remember(5, Key{15500, 15537}, {{1}, {3}, {}});
  cache.remember(5, Key{15500, 15538}, {{4}, {5}, {}});
  cache.remember(6, Key{15500, 15537}, {{6}, {7}, {}});
  EXPECT_EQ(cache.size(), 3U);
  ASSERT_NE(cache.find(5, Key{15500, 15537}), nullptr);
  EXPECT_EQ(*cache.find(5, Key{15500, 15537}), (LateJoinerCache::Frames{{1}, {3}, {}}));
  EXPECT_EQ(*cache.find(5, Key{15500, 15538}), (LateJoinerCache::Frames{{4}, {5}, {}}));
  EXPECT_EQ(*cache.find(6, Key{15500, 15537}), (LateJoinerCache::Frames{{6}, {7}, {}}));
  EXPECT_EQ(cache.find(7, Key{15500, 15537}), nullptr);
  EXPECT_EQ(cache.find(5, Key{14500, 14505}), nullptr);
}

TEST(LateJoinerCache, TheFanRateEventsOfASlotAreOneState) {
  // Hot, cool, hot again: a board that joins now must learn "hot", whatever the order in which it
  // subscribes to the two keys.
  LateJoinerCache cache;
  cache.remember(5, Key{15500, 15537}, {{1}, {1}, {}});
  cache.remember(5, Key{15500, 15538}, {{2}, {2}, {}});
  EXPECT_EQ(cache.find(5, Key{15500, 15537}), nullptr);
  ASSERT_NE(cache.find(5, Key{15500, 15538}), nullptr);
  cache.remember(5, Key{15500, 15537}, {{3}, {3}, {}});
  EXPECT_EQ(cache.size(), 1U);
  EXPECT_EQ(cache.find(5, Key{15500, 15538}), nullptr);
  ASSERT_NE(cache.find(5, Key{15500, 15537}), nullptr);
  EXPECT_EQ(*cache.find(5, Key{15500, 15537}), (LateJoinerCache::Frames{{3}, {3}, {}}));
  // The mastership event is a state of its own beside them.
  cache.remember(5, Key{14500, 14505}, {{4}, {4}, {}});
  EXPECT_EQ(cache.size(), 2U);
  EXPECT_NE(cache.find(5, Key{15500, 15537}), nullptr);
}

TEST(LateJoinerCache, WithKeyListsEverySlotsNewestEventOfTheKeyOldestFirst) {
  LateJoinerCache cache;
  cache.remember(9, Key{15500, 15537}, {{9}, {1}, {}});
  cache.remember(5, Key{15500, 15537}, {{5}, {1}, {}});
  cache.remember(7, Key{15500, 15537}, {{7}, {1}, {}});
  cache.remember(7, Key{15500, 15538}, {{7}, {2}, {}});  // slot 7 cooled down
  cache.remember(9, Key{15500, 15537}, {{9}, {2}, {}});  // slot 9 asked again
  std::vector<LateJoinerCache::Frames> hot;
  for (const auto* frames : cache.with_key(Key{15500, 15537})) {
    hot.push_back(*frames);
  }
  EXPECT_EQ(hot, (std::vector<LateJoinerCache::Frames>{{{5}, {1}, {}}, {{9}, {2}, {}}}));
  ASSERT_EQ(cache.with_key(Key{15500, 15538}).size(), 1U);
  EXPECT_EQ(*cache.with_key(Key{15500, 15538}).front(), (LateJoinerCache::Frames{{7}, {2}, {}}));
  EXPECT_TRUE(cache.with_key(Key{14500, 14505}).empty());
}

TEST(CrateConfig, StatesAreReadAndCheckedAndTheFanRatesAreTheDefault) {
  EXPECT_EQ(parse_crate_config("enabled = false\n", "crate.toml").states,
            (StateKeys{{Key{15500, 15537}, Key{15500, 15538}}}));
  const auto config = parse_crate_config(
      "enabled = true\nslot = 5\nlisten = \"tcp://127.0.0.1:15600\"\n"
      "states = [[\"15500:15537\", \"15500:15538\"], [\"100:1\", \"100:2\", \"100:3\"]]\n",
      "crate.toml");
  EXPECT_EQ(config.states,
            (StateKeys{{Key{15500, 15537}, Key{15500, 15538}}, {Key{100, 1}, Key{100, 2}, Key{100, 3}}}));
  EXPECT_TRUE(parse_crate_config("states = []\n", "crate.toml").states.empty());
  const std::vector<std::pair<std::string, std::string>> bad{
      {R"(states = "15500:15537")",
       R"(crate configuration crate.toml: states must be a list of lists of "GROUP:ID" strings)"},
      {R"(states = ["15500:15537"])",
       R"(crate configuration crate.toml: states must be a list of lists of "GROUP:ID" strings)"},
      {R"(states = [["15500:15537"]])", "crate configuration crate.toml: states: a state needs at least two keys"},
      {R"(states = [["15500:x", "1:2"]])",
       R"(crate configuration crate.toml: states: "15500:x" is not GROUP:ID (numbers up to 65535))"},
      {R"(states = [["1:1", "1:2"], ["1:2", "1:3"]])",
       "crate configuration crate.toml: states: 1:2 is in more than one state"},
  };
  for (const auto& [text, message] : bad) {
    try {
      (void)parse_crate_config(text + "\n", "crate.toml");
      ADD_FAILURE() << text << " was accepted";
    } catch (const CrateConfigError& error) {
      EXPECT_EQ(std::string(error.what()), message) << text;
    }
  }
}

}  // namespace
}  // namespace xpon::ipc_bus
