// Where a command writes: results to one stream, what went wrong to the other. A command gets it from
// `main`, or from a test that reads what was written.
#pragma once

#include <cstddef>
#include <ostream>
#include <string_view>

#include "Host/vantryctl/Outcome.h"
#include "Host/vantryctl/Table.h"

namespace vantryctl {

struct Console {
    std::ostream& out;
    std::ostream& err;
    std::size_t width = Table::standardWidth;  // `Table::unlimited` where no terminal is

    bool isTerminal() const { return width != Table::unlimited; }

    // Says what went wrong and what to do about it. Returns the failure's exit code.
    ExitCode report(const Failure& failure) const;
    // A remark beside the result.
    void note(std::string_view text) const;
};

}  // namespace vantryctl
