#include "preview/inspector_model.h"

#include <cmath>
#include <cstdio>

#include "engine/resample_method.h"
#include "support/locale_numbers.h"

namespace tarnbloom::preview {

std::string factorText(double factor) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", factor);
  std::string s = text;
  while (!s.empty() && s.back() == '0') s.pop_back();
  if (!s.empty() && s.back() == '.') s.pop_back();
  return s + "×";
}

std::string sizeText(int64_t width, int64_t height) {
  char mp[32];
  std::snprintf(mp, sizeof mp, "%.1f", static_cast<double>(width) * static_cast<double>(height) / 1e6);
  return groupedNumber(width) + " × " + groupedNumber(height) + " px · " + mp + " MP";
}

InspectorState evaluateOptions(const exporting::ExportOptions& options, const SourceFacts& source,
                               const std::optional<std::string>& enhanceUnavailable) {
  InspectorState state;
  state.format = options.resolvedFormat(source.path);
  try {
    state.size = options.resolvedSize(source.width, source.height, source.bitsPerComponent,
                                      state.format);
    state.sizeText = sizeText(state.size->width, state.size->height);
  } catch (const Error& error) {
    state.message = error.description();
    if (const auto suggestion = error.recoverySuggestion(); !suggestion.empty())
      state.message += " " + suggestion;
  }
  if (state.message.empty() && options.method == ResampleMethod::estimate && enhanceUnavailable)
    state.message = *enhanceUnavailable;
  state.canExport = state.message.empty();
  state.exportBlockedReason = state.message;
  return state;
}

}  // namespace tarnbloom::preview
