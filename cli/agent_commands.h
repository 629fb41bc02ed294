#pragma once

#include <string>
#include <vector>

namespace tarnbloom::cli {

// `tarnbloom service [--until-idle]`: the headless instance.
int runService(const std::vector<std::string>& arguments);
// `tarnbloom url URL`: hands a tarnbloom:// URL to the running instance.
int runURL(const std::vector<std::string>& arguments);
// `tarnbloom status JOB [--json]`, `tarnbloom cancel JOB`,
// `tarnbloom doctor [--json]`.
int runStatus(const std::vector<std::string>& arguments);
int runCancel(const std::vector<std::string>& arguments);
int runDoctor(const std::vector<std::string>& arguments);

}  // namespace tarnbloom::cli
