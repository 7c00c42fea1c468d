// Two processes of a fleet share a memcached server through their caches:
// what one generated, the other finds; values planted by hand that do not
// belong are refused and the object generated instead.
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>

#include "memcached/MemcachedServer.h"
#include "support/TempDir.h"

namespace TarnTest {
namespace {

// What one run of tarn_tier_process printed.
struct ProcessRun {
  int generated = -1;
  std::string digest;
  int hits = -1;
  int rejected = -1;
  int published = -1;
};

class TierEndToEndTest : public ::testing::Test {
 protected:
  // Runs the process on the server with a cache file of its own.
  ProcessRun run(const std::string& cacheName, int count, const std::string& type) {
    const std::string command = std::string(TARN_TIER_PROCESS_PATH) + " " + server_.address() +
                                " " + dir_.file(cacheName) + " " + std::to_string(count) + " " +
                                type;
    FILE* pipe = popen(command.c_str(), "r");
    EXPECT_NE(pipe, nullptr);
    char line[512] = {};
    const bool read = pipe != nullptr && std::fgets(line, sizeof line, pipe) != nullptr;
    const int status = pipe != nullptr ? pclose(pipe) : -1;
    EXPECT_TRUE(read && status == 0) << command << " exited with " << status;
    std::map<std::string, std::string> fields;
    std::istringstream words(line);
    for (std::string word; words >> word;) {
      const auto equals = word.find('=');
      if (equals != std::string::npos) fields[word.substr(0, equals)] = word.substr(equals + 1);
    }
    ProcessRun result;
    if (fields.size() < 5) return result;
    result.generated = std::stoi(fields["generated"]);
    result.digest = fields["digest"];
    result.hits = std::stoi(fields["hits"]);
    result.rejected = std::stoi(fields["rejected"]);
    result.published = std::stoi(fields["published"]);
    return result;
  }

  // A run that refuses every planted value and generates each object instead.
  ProcessRun runRefusingAll(const std::string& cacheName, int count, const std::string& type) {
    const ProcessRun result = run(cacheName, count, type);
    EXPECT_EQ(result.generated, count);
    EXPECT_EQ(result.rejected, count);
    return result;
  }

  // The only key the server holds.
  std::string onlyKey() {
    const auto keys = RawClient(server_.port()).keys();
    EXPECT_EQ(keys.size(), 1u);
    return keys.empty() ? std::string() : keys.front();
  }

  TempDir dir_;
  MemcachedServer server_{dir_.path()};
};

TEST_F(TierEndToEndTest, ASecondProcessFindsWhatTheFirstGenerated) {
  const ProcessRun first = run("a.tarn", 40, "tile");
  EXPECT_EQ(first.generated, 40);
  EXPECT_EQ(first.published, 40);
  const ProcessRun second = run("b.tarn", 40, "tile");
  EXPECT_EQ(second.generated, 0);
  EXPECT_EQ(second.hits, 40);
  EXPECT_EQ(second.digest, first.digest);
  // Another type under the same keys is another object.
  const ProcessRun other = run("c.tarn", 40, "map");
  EXPECT_EQ(other.generated, 40);
  EXPECT_NE(other.digest, first.digest);
}

TEST_F(TierEndToEndTest, ACorruptedValueIsRefusedAndTheObjectGenerated) {
  const ProcessRun first = run("a.tarn", 1, "tile");
  ASSERT_EQ(first.generated, 1);
  const std::string key = onlyKey();
  std::string value = RawClient(server_.port()).get(key).value_or("");
  ASSERT_FALSE(value.empty());
  value[value.size() - 1] ^= 0x40;  // the object's last byte
  ASSERT_TRUE(RawClient(server_.port()).set(key, value));
  EXPECT_EQ(runRefusingAll("b.tarn", 1, "tile").digest, first.digest);
}

TEST_F(TierEndToEndTest, AValueOfAnotherTypeIsRefused) {
  ASSERT_EQ(run("tile.tarn", 1, "tile").generated, 1);
  const std::string tileKey = onlyKey();
  const std::string tileValue = RawClient(server_.port()).get(tileKey).value_or("");
  const ProcessRun map = run("map.tarn", 1, "map");
  ASSERT_EQ(map.generated, 1);
  // The map's slot now holds the tile's value.
  for (const std::string& key : RawClient(server_.port()).keys()) {
    if (key != tileKey) {
      ASSERT_TRUE(RawClient(server_.port()).set(key, tileValue));
    }
  }
  EXPECT_EQ(runRefusingAll("map2.tarn", 1, "map").digest, map.digest);
}

TEST_F(TierEndToEndTest, AValueStoredUnderAnotherKeyIsRefused) {
  ASSERT_EQ(run("a.tarn", 2, "tile").generated, 2);
  RawClient client(server_.port());
  const auto keys = client.keys();
  ASSERT_EQ(keys.size(), 2u);
  const std::string first = client.get(keys[0]).value_or("");
  const std::string second = client.get(keys[1]).value_or("");
  ASSERT_TRUE(client.set(keys[0], second));
  ASSERT_TRUE(client.set(keys[1], first));
  runRefusingAll("b.tarn", 2, "tile");
}

}  // namespace
}  // namespace TarnTest
