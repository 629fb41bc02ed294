#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "recipes/folder_batch_walker.h"
#include "support/error.h"

namespace tarnbloom::recipes {

// The most shards one batch may be cut into: far more than any cluster
// runs tasks at once, and small enough that a typo of many digits is caught.
inline constexpr int kMaximumShardCount = 100000;

// One slice of a batch: shard `index` (counted from 0) of `count`.
struct ShardSpec {
  int index = 0;
  int count = 1;
  friend bool operator==(const ShardSpec&, const ShardSpec&) = default;
};

// Text given for a shard that names none.
class ShardSpecError : public Error {
 public:
  explicit ShardSpecError(std::string message) : m_message(std::move(message)) {}
  std::string description() const override { return m_message; }

 private:
  std::string m_message;
};

// Reads "K/N": two plain decimal numbers, 0 <= K < N <= kMaximumShardCount.
// Throws ShardSpecError with a sentence fit for the command line.
ShardSpec parseShard(std::string_view text);

// The key a source is sharded by: its path relative to the input folder for
// a file a folder walk found, else its file name. The key must not depend on
// where the folder is mounted: every task of an array computes the whole
// partition on its own, often on nodes that mount the shared volume at
// different paths (or a container that sees it at /data), and one absolute
// path in a key would put a photo in two shards, or in none.
std::string stableShardKey(const std::filesystem::path& source,
                           const std::optional<std::filesystem::path>& inputFolder);

// The shard `key` belongs to: the first 8 bytes of the SHA-256 of its UTF-8
// bytes, read big-endian, modulo `count`. The same on every machine, build
// and locale, so tasks started anywhere agree on the partition.
int shardOf(std::string_view key, int count);

// The key of each source of a batch (usually stableShardKey with the folder
// the source was found in).
using ShardKeyOf = std::function<std::string(const std::filesystem::path&)>;

// Keeps what belongs to `shard` of a plan made over the whole batch: items,
// refusals and collisions of other shards go, and the names and numbers
// the whole batch gave stay as they are, so every shard agrees with the
// unsharded run.
void keepShard(exporting::ExportPlan& plan, const ShardSpec& shard, const ShardKeyOf& keyOf);
void keepShard(PreflightReport& report, const ShardSpec& shard, const ShardKeyOf& keyOf);

}  // namespace tarnbloom::recipes
