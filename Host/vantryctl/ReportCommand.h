// Puts together what somebody who helps needs to know of this machine. Names of applications and addresses are
// replaced by numbers, the same one each time, unless they are asked for.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

ExitCode printReport(bool isPlain, const Console& console);

// Replaces names and addresses in texts.
class Redaction {
public:
    // The names, longest first.
    explicit Redaction(std::vector<std::string> names);
    std::string of(std::string text);

private:
    void replaceAddresses(std::string& text);

    std::vector<std::string> applications;
    std::map<std::string, std::size_t, std::less<>> addresses;
};

}  // namespace vantryctl
