// From what a person calls an application to the identifier that rules are given for. A process id or a
// path of a file is taken for the program that it names; any other word is an identifier, and is looked for
// among the applications that are installed, run, were seen, or have a rule.
#pragma once

#include <string>
#include <vector>

#include "Host/settings/Settings.h"
#include "Host/vantryctl/Outcome.h"

namespace vantryctl {

struct NamedApplications {
    std::vector<std::string> identifiers;  // in the order of the words
    std::vector<std::string> notes;        // what the user should know
};

// For a rule that is to take effect. A failure where a word certainly is no identifier: the name of an
// application in menus, a route, a process that isn't there.
Outcome<NamedApplications> applicationsNamed(const std::vector<std::string>& words,
                                             const Settings& settings);

// For what is taken away again: words that the settings know stand for themselves.
Outcome<NamedApplications> applicationsWithRules(const std::vector<std::string>& words,
                                                 const Settings& settings);

// The file that a shell would run for this word; the word itself where it is a path, or none is found.
std::string fileOfProgram(const std::string& word);

// What else makes an application's connections, under names of its own; empty for most.
std::vector<std::string> partsUnderOtherNames(const std::string& identifier);

}  // namespace vantryctl
