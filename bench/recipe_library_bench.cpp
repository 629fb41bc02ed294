// What listing the recipe library costs: a library of 500 saved recipes
// listed through RecipeStore::entries (open without following links, read,
// key pass, typed reading, every check, sort by date) against only reading
// the same 500 files' bytes. Runs alternate in one process; the medians and
// the median of the rounds' ratios are the result. Goal: a listing of 500
// under 0.5 s.
//
//   recipe_library_bench [WORK_FOLDER]   (default: ./recipe-library-bench-work)

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "bench_support.h"
#include "recipes/recipe_store.h"
#include "support/files.h"

using namespace tarnbloom;
using namespace tarnbloom::recipes;
namespace fs = std::filesystem;

namespace {

constexpr int kRecipes = 500;

// Recipes like people keep: one to three outputs, all methods and formats,
// some with a canvas.
RecipeDraft benchDraft(int index) {
  RecipeDraft draft;
  draft.id = "bench-" + std::to_string(index);
  draft.name = "Catalogue " + std::to_string(index);
  const int outputs = 1 + index % 3;
  for (int i = 0; i < outputs; ++i) {
    RecipeOutputDraft output;
    output.method = kAllResampleMethods[(index + i) % 3];
    if (output.method == ResampleMethod::estimate) {
      output.model = RecipeOutputDraft::installedEstimateModel();
      output.estimateStrength = 0.7;
    }
    output.sizeMode = i == 0 ? SizeMode::longEdge : SizeMode::x4;
    output.sizeValue = 2000 + index;
    output.format = std::array{encoding::ExportFormat::png, encoding::ExportFormat::jpeg,
                               encoding::ExportFormat::tiff, encoding::ExportFormat::webp}[i % 4];
    output.jpeg.maxBytes = 800'000;
    output.namingTemplate = "{source}_{w}x{h}_{method}";
    if (index % 4 == 0) {
      canvas::Canvas canvas;
      canvas.width = canvas.height = 2000;
      canvas.fill = canvas::CanvasFill{canvas::CanvasFill::Kind::colour, "#F0F0F0"};
      output.canvas = canvas;
    }
    if (index % 5 == 0) output.destination = "/srv/shop/exports/" + std::to_string(index);
    draft.outputs.push_back(output);
  }
  return draft;
}

double listThroughStore(const RecipeStore& store, size_t* usable) {
  const auto start = std::chrono::steady_clock::now();
  const auto entries = store.entries(allMethods());
  const double seconds = bench::secondsSince(start);
  *usable = static_cast<size_t>(
      std::count_if(entries.begin(), entries.end(), [](const auto& e) { return e.isUsable(); }));
  return seconds;
}

double readBytesOnly(const fs::path& folder, size_t* totalBytes) {
  const auto start = std::chrono::steady_clock::now();
  size_t total = 0;
  for (const auto& entry : fs::directory_iterator(folder))
    if (entry.path().extension() == ".tarnbloomrecipe") total += readWholeFile(entry.path()).size();
  *totalBytes = total;
  return bench::secondsSince(start);
}

}  // namespace

int main(int argc, char** argv) {
  const fs::path work = fs::absolute(argc > 1 ? argv[1] : "recipe-library-bench-work");
  fs::remove_all(work);
  const RecipeStore store(work / "Recipes");
  for (int i = 0; i < kRecipes; ++i) store.save(benchDraft(i));

  size_t usable = 0, bytes = 0;
  listThroughStore(store, &usable);  // warm the page cache for both
  readBytesOnly(store.directory(), &bytes);
  if (usable != kRecipes) {
    std::fprintf(stderr, "only %zu of %d recipes listed as usable\n", usable, kRecipes);
    return 1;
  }

  constexpr int kRounds = 9;
  std::vector<double> listing, reading, ratios;
  for (int round = 0; round < kRounds; ++round) {
    double a = 0, b = 0;
    if (round % 2 == 0) {
      b = readBytesOnly(store.directory(), &bytes);
      a = listThroughStore(store, &usable);
    } else {
      a = listThroughStore(store, &usable);
      b = readBytesOnly(store.directory(), &bytes);
    }
    listing.push_back(a);
    reading.push_back(b);
    ratios.push_back(a / b);
  }
  const double listed = bench::median(listing);
  std::printf(
      "%d recipes (%.1f KB): listing %.1f ms, reading the bytes only %.1f ms (medians of %d): "
      "listing costs %.1fx the reads (median ratio); goal: listing under 500 ms: %s\n",
      kRecipes, bytes / 1000.0, listed * 1000, bench::median(reading) * 1000, kRounds, bench::median(ratios),
      listed < 0.5 ? "met" : "NOT met");
  std::printf("peak RSS %.1f MiB\n", bench::peakRssMiB());
  fs::remove_all(work);
  return listed < 0.5 ? 0 : 1;
}
