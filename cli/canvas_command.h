#pragma once

#include <string>
#include <vector>

namespace tarnbloom::cli {

// `tarnbloom canvas preview FILE --size SIZE --canvas WxH --crop X,Y
// [--format F] --out PREVIEW.png`: the crop as it would be exported, and a
// confirmation beside it bound to that very file, size, canvas and format.
int runCanvas(const std::vector<std::string>& arguments);

}  // namespace tarnbloom::cli
