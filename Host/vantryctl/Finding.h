// What one check of the machine found.
#pragma once

#include <string>
#include <vector>

namespace vantryctl {

enum class Verdict {
    good,
    warning,  // the daemon works, but something will not go as one expects
    missing,  // the daemon cannot work, or not in full
    unknown,  // this user may not look
};

struct Finding {
    std::string subject;
    Verdict verdict = Verdict::good;
    std::string detail;
    std::string advice;  // empty where nothing is to be done
};

using Findings = std::vector<Finding>;

}  // namespace vantryctl
