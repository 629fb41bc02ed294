#include "recipes/shard.h"

#include <algorithm>
#include <charconv>

#include "support/sha256.h"

namespace tarnbloom::recipes {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kShardForm = "--shard takes K/N with 0 ≤ K < N, for example 0/4.";

// A plain decimal number: digits only, no sign, no spaces, no hex.
std::optional<int> plainNumber(std::string_view text) {
  if (text.empty() || text.size() > 9) return std::nullopt;
  for (char c : text)
    if (c < '0' || c > '9') return std::nullopt;
  int value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

}  // namespace

ShardSpec parseShard(std::string_view text) {
  const size_t slash = text.find('/');
  if (slash == std::string_view::npos) throw ShardSpecError(std::string(kShardForm));
  const auto index = plainNumber(text.substr(0, slash));
  const auto count = plainNumber(text.substr(slash + 1));
  if (!index || !count) throw ShardSpecError(std::string(kShardForm));
  if (*count == 0) throw ShardSpecError("--shard needs at least one shard (N ≥ 1).");
  if (*count > kMaximumShardCount)
    throw ShardSpecError("--shard takes at most " + std::to_string(kMaximumShardCount) +
                         " shards.");
  if (*index >= *count)
    throw ShardSpecError("--shard " + std::string(text) + ": shards count from 0, so K must be " +
                         "less than N (the last of " + std::to_string(*count) + " is " +
                         std::to_string(*count - 1) + ").");
  return {*index, *count};
}

std::string stableShardKey(const fs::path& source, const std::optional<fs::path>& inputFolder) {
  if (inputFolder) {
    const fs::path relative =
        source.lexically_normal().lexically_relative(inputFolder->lexically_normal());
    // A walk only yields paths below its folder; anything else (another
    // spelling of the folder) falls back to the name rather than to a path
    // that climbs out with "..".
    if (!relative.empty() && *relative.begin() != "..") return relative.generic_string();
  }
  return source.filename().string();
}

int shardOf(std::string_view key, int count) {
  if (count <= 1) return 0;
  const std::string digest = sha256Hex(std::as_bytes(std::span(key.data(), key.size())));
  uint64_t prefix = 0;
  std::from_chars(digest.data(), digest.data() + 16, prefix, 16);
  return static_cast<int>(prefix % static_cast<uint64_t>(count));
}

void keepShard(exporting::ExportPlan& plan, const ShardSpec& shard, const ShardKeyOf& keyOf) {
  const auto elsewhere = [&](const fs::path& source) {
    return shardOf(keyOf(source), shard.count) != shard.index;
  };
  std::erase_if(plan.items, [&](const auto& item) { return elsewhere(item.url); });
  std::erase_if(plan.refusals, [&](const auto& refusal) { return elsewhere(refusal.source); });
  std::erase_if(plan.collisions,
                [&](const auto& collision) { return elsewhere(collision.source); });
}

void keepShard(PreflightReport& report, const ShardSpec& shard, const ShardKeyOf& keyOf) {
  const auto elsewhere = [&](const fs::path& source) {
    return shardOf(keyOf(source), shard.count) != shard.index;
  };
  keepShard(report.plan, shard, keyOf);
  std::erase_if(report.excluded, [&](const auto& entry) { return elsewhere(entry.first); });
  std::erase_if(report.skipped, [&](const auto& refusal) { return elsewhere(refusal.source); });
}

}  // namespace tarnbloom::recipes
