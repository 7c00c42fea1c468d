// The kill -9 loop: a writer process churns a cache file through the public
// API and is killed at a random moment; then the file must pass the
// inspector's verify, open, and return for every key exactly one of the
// states its side log allows, with the bytes of that version. Keys that the
// check then erases and commits must stay gone across a reopen.
//
// The same loop runs once more with a shared tier in the writer: part of its
// writes are tier hits, decoded and inserted by the cache, which must keep
// the file exactly as its own inserts do.
//
// Settings (environment): TARN_CRASH_SECONDS bounds the run (default 50, 8
// with the tier; 0 = no bound), TARN_CRASH_CYCLES bounds the number of kills
// (default 0 = no bound), TARN_CRASH_SEED repeats a run. `make crashtest`
// runs the long form.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "crash/CrashModel.h"
#include "crash/CrashWriter.h"
#include "support/RecordingReceiver.h"
#include "support/TempDir.h"
#include "support/TestFactory.h"
#include "support/ZeroedConfig.h"
#include "tarn/tarn.h"

extern char** environ;

namespace TarnCrash {
namespace {

// Versions of one cycle start at cycle * kVersionsPerCycle, so that every
// version of the run is unique.
constexpr int64_t kVersionsPerCycle = 10'000'000;
// The writer is killed this long after it starts: from before its open ends
// to well into its writing.
constexpr int kKillAfterMinMs = 2;
constexpr int kKillAfterMaxMs = 120;
// Keys that each check erases and commits, then expects gone after a reopen.
constexpr int kErasedPerCheck = 3;
constexpr size_t kFindingsShown = 20;

uint64_t Setting(const char* name, uint64_t fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? std::stoull(value) : fallback;
}

using Baseline = std::map<int, int64_t>;

class CrashLoop : public testing::Test {
 protected:
  std::unique_ptr<Tarn::Cache> openCache() {
    Tarn::Config config = Tarn::ZeroedConfig();
    config.memoryTarget = 1 << 20;
    config.workerThreads = 1;
    config.createIfMissing = true;
    return std::make_unique<Tarn::Cache>(
        wpath_.c_str(), config,
        std::vector<Pt::SmartPointer<Tarn::CacheableFactory>>{new TarnTest::NamedFactory(kType)});
  }

  void report(int cycle, const std::string& what) {
    ++findingCount_;
    if (findings_.size() < kFindingsShown) {
      findings_.push_back("cycle " + std::to_string(cycle) + ": " + what);
    }
  }

  // Starts the writer, kills it after `killAfterMs`, and says how it ended
  // when it did not die of the kill.
  std::string runWriter(uint64_t seed, int64_t firstVersion, int killAfterMs, bool withTier) {
    std::filesystem::remove(log_);
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    std::vector<std::string> args = {self, kWriterFlag,          path_,
                                     log_, std::to_string(seed), std::to_string(firstVersion)};
    if (withTier) args.push_back(kTierFlag);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    pid_t child = 0;
    if (posix_spawn(&child, self.c_str(), nullptr, nullptr, argv.data(), environ) != 0) {
      return "the writer could not be started";
    }
    // The sleep picks the moment of the kill; nothing waits on it.
    std::this_thread::sleep_for(std::chrono::milliseconds(killAfterMs));
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) return "";
    return "the writer ended by itself, status " + std::to_string(status);
  }

  // The inspector's verify; an empty string when it passes or is not built.
  std::string inspect() {
#ifdef TARN_INSPECT_PATH
    const std::string out = dir_.file("inspect.txt");
    const std::string command =
        std::string(TARN_INSPECT_PATH) + " verify '" + path_ + "' > '" + out + "' 2>&1";
    if (std::system(command.c_str()) == 0) return "";
    std::ifstream in(out);
    return "inspector verify fails: " +
           std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
#else
    return "";
#endif
  }

  // Checks every key against the model; returns what the file holds (keys
  // with wrong bytes are erased, so that the next cycle starts clean).
  Baseline check(int cycle, Tarn::Cache& cache, const Model& model) {
    Baseline held;
    for (int key = 0; key < kKeyCount; ++key) {
      std::string problem;
      const int64_t state = StateOf(cache, key, problem);
      const std::set<int64_t>& allowed = model.allowed(key);
      if (!problem.empty() || allowed.count(state) == 0) {
        report(cycle, "key " + KeyName(key) + ": expected one of " + Describe(allowed) + ", got " +
                          (problem.empty() ? Describe(state) : problem));
      }
      if (!problem.empty()) cache.erase(Tarn::PrimaryKey::FromString(KeyName(key)));
      if (problem.empty() && state != kAbsent) held[key] = state;
    }
    return held;
  }

  // Erases a few held keys, commits, reopens: they must stay gone.
  void eraseAndReopen(int cycle, std::unique_ptr<Tarn::Cache>& cache, Baseline& held,
                      std::mt19937_64& random) {
    std::vector<int> erased;
    for (int i = 0; i < kErasedPerCheck && !held.empty(); ++i) {
      auto victim = held.begin();
      std::advance(victim, static_cast<long>(random() % held.size()));
      erased.push_back(victim->first);
      cache->erase(Tarn::PrimaryKey::FromString(KeyName(victim->first)));
      held.erase(victim);
    }
    cache->commit();
    cache.reset();
    cache = openCache();
    for (const int key : erased) {
      std::string problem;
      const int64_t state = StateOf(*cache, key, problem);
      if (state != kAbsent || !problem.empty()) {
        report(cycle, "key " + KeyName(key) + " was erased and committed, came back as " +
                          (problem.empty() ? Describe(state) : problem));
        cache->erase(Tarn::PrimaryKey::FromString(KeyName(key)));
      }
    }
    cache->commit();
  }

  // One kill and its check; returns the state the next cycle starts from.
  Baseline cycle(int number, uint64_t seed, const Baseline& baseline, std::mt19937_64& random,
                 bool withTier) {
    Model model(baseline);
    const int killAfterMs =
        kKillAfterMinMs + static_cast<int>(random() % (kKillAfterMaxMs - kKillAfterMinMs));
    const std::string ended = runWriter(seed, number * kVersionsPerCycle, killAfterMs, withTier);
    if (!ended.empty()) report(number, ended);
    model.applyLog(log_);
    commits_ += model.commits();
    closes_ += model.closes();
    relocated_ += model.relocated();
    tierWrites_ += model.tierWrites();
    if (const std::string rejected = inspect(); !rejected.empty()) report(number, rejected);
    std::unique_ptr<Tarn::Cache> cache;
    try {
      cache = openCache();
    } catch (const std::exception& error) {
      report(number, std::string("the file does not open: ") + error.what());
      std::filesystem::remove(path_);
      cache = openCache();
      return {};
    }
    Baseline held = check(number, *cache, model);
    eraseAndReopen(number, cache, held, random);
    return held;
  }

  TarnTest::TempDir dir_;
  std::string path_ = dir_.file("crash.tarn");
  std::wstring wpath_ = dir_.wfile("crash.tarn");
  std::string log_ = dir_.file("writer.log");
  std::vector<std::string> findings_;
  size_t findingCount_ = 0;
  int commits_ = 0;
  int closes_ = 0;
  int64_t relocated_ = 0;
  int tierWrites_ = 0;

  // Kills until the settings' bounds; returns the kills with findings.
  int loop(uint64_t defaultSeconds, bool withTier, int& done, uint64_t& seed);
  std::string firstFindings(uint64_t seed) const {
    std::string text = "seed " + std::to_string(seed) + "; first findings:\n";
    for (const std::string& finding : findings_) text += "  " + finding + "\n";
    return text;
  }
};

int CrashLoop::loop(uint64_t defaultSeconds, bool withTier, int& done, uint64_t& seed) {
  const uint64_t seconds = Setting("TARN_CRASH_SECONDS", defaultSeconds);
  const uint64_t cycles = Setting("TARN_CRASH_CYCLES", 0);
  seed = Setting("TARN_CRASH_SEED", std::random_device{}());
  std::cout << "crash loop: seed " << seed << " (TARN_CRASH_SEED repeats it)" << std::endl;
  std::mt19937_64 random(seed);
  openCache().reset();  // the file exists before the first writer starts

  const auto start = std::chrono::steady_clock::now();
  Baseline baseline;
  int failed = 0;
  done = 0;
  while (
      (cycles == 0 || static_cast<uint64_t>(done) < cycles) &&
      (seconds == 0 || std::chrono::steady_clock::now() - start < std::chrono::seconds(seconds))) {
    const size_t before = findingCount_;
    baseline = cycle(done + 1, random(), baseline, random, withTier);
    ++done;
    if (findingCount_ != before) ++failed;
  }
  return failed;
}

// A kill at a random moment, over and over: replacements of a small key set
// collide with writes in flight, so a new header that reached the file
// before the delete header of the entry it replaces would show as an older
// version served, or an erased key coming back.
TEST_F(CrashLoop, KillNineKeepsEveryCommittedVersionAndNothingErased) {
  int done = 0;
  uint64_t seed = 0;
  const int failed = loop(50, false, done, seed);
  std::cout << "crash loop: " << done << " kills, " << commits_ << " commits logged, " << closes_
            << " closes in the writers relocating " << relocated_ << " entries, " << failed
            << " kills with findings (" << findingCount_ << " findings)" << std::endl;
  ASSERT_GT(done, 0);
  EXPECT_EQ(failed, 0) << firstFindings(seed);
}

// The same with a shared tier in the writer: objects the tier serves reach
// the file through the cache's ordered insert, so a kill leaves them as it
// leaves any other write. A writer that gets another version than the one
// it logged, or no tier hit where the tier holds the key, exits by itself.
TEST_F(CrashLoop, KillNineWithASharedTierKeepsEveryCommittedVersion) {
  int done = 0;
  uint64_t seed = 0;
  const int failed = loop(8, true, done, seed);
  std::cout << "crash loop with a tier: " << done << " kills, " << tierWrites_
            << " tier hits logged, " << commits_ << " commits logged, " << failed
            << " kills with findings (" << findingCount_ << " findings)" << std::endl;
  ASSERT_GT(done, 0);
  // A slow build (a sanitizer) may have every writer killed before it
  // writes; once writers commit, some of their writes must be tier hits.
  if (commits_ > 0) {
    EXPECT_GT(tierWrites_, 0) << "no write was served by the tier";
  }
  EXPECT_EQ(failed, 0) << firstFindings(seed);
}

}  // namespace
}  // namespace TarnCrash
