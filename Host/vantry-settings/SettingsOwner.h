// What the settings service decides: it owns the preferences, keeps the rules file saying what they say,
// ends what is temporary, and puts in force whether the VPN is up. It answers requests as documents.
// What it shows is what is in force: a preferences file that is taken away is written again, as the rules
// file is. It has no clock, no thread and no socket of its own: its owner tells it what has happened.
//
// A change is a whole new document against the revision that it was made from, so two tools at once
// cannot undo each other's work: the second is told of the conflict, reads again and repeats its edit.
//
//   {"do": "get"}                                             the document, its revision, what stands
//   {"do": "put", "revision": R, "preferences": {...}}        replaces it; with "isPassing": true, what
//                                                             was before is not kept as a version
//   {"do": "undo"}                                            the newest version that differs
//   {"do": "restore"}                                         the rules file is looked at again
//
// An answer has "revision", "preferences", "tunnel", "problems" and "notes", and "notInForce" if the rules file
// cannot be written at present; or "conflict": true; or "failure" with "what" and "advice".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Host/settings/Choices.h"
#include "Host/vantry-settings/RulesFile.h"
#include "Host/vantry-settings/TunnelState.h"
#include "Platform/Common/JSON.h"

namespace vantrysettings {

class SettingsOwner {
public:
    SettingsOwner();

    // Reads the preferences, or takes over a rules file where there are none, and writes the rules file.
    void start(vantryhost::SecondsSince1970 now);

    platform::JSONObject answer(const platform::JSONObject& request,
                                vantryhost::SecondsSince1970 now);
    // The settings as they are now, as an answer.
    platform::JSONObject report() const;

    // Something happened to the preferences, to the rules file, to the tunnel.
    void preferencesTouched(vantryhost::SecondsSince1970 now);
    void rulesFileTouched();
    void tunnelChanged(const TunnelView& view);

    // Ends what ends by `now`.
    void timePassed(vantryhost::SecondsSince1970 now);
    // Two hours stay two hours: what ends, ends as much earlier.
    void clockWasSetBack(vantryhost::SecondsSince1970 seconds);
    // When something temporary ends next.
    std::optional<vantryhost::SecondsSince1970> nextEnd() const;
    // The interfaces that the VPN is; null if whether it is up is not for the service to say.
    const std::vector<std::string>* followedInterfaces() const;

    // What cannot be done at present, in words for a person, and whether it is worth trying again.
    const std::vector<std::string>& problems() const { return present; }

private:
    using Document = platform::JSONObject;

    vantryhost::Outcome<> load();
    void takeOverRulesFile();
    void takeCopy();
    void adopt(Document document, vantryhost::Choices choices);
    void adoptStored(Document document, vantryhost::Choices choices);
    void changeByItself(vantryhost::Choices changed);
    void storeWhatEnded();
    platform::JSONObject put(const platform::JSONObject& request, vantryhost::SecondsSince1970 now);
    platform::JSONObject undo(vantryhost::SecondsSince1970 now);
    vantryhost::Outcome<> bringUpToDate(Document& version, vantryhost::SecondsSince1970 now) const;
    vantryhost::Outcome<std::optional<Document>> newestOtherVersion(
        vantryhost::SecondsSince1970 now) const;
    enum class Keeping { version, noVersion };  // of what is replaced
    vantryhost::Outcome<> store(Document document, vantryhost::Choices choices, Keeping keeping);
    void putInForce();
    vantryhost::Settings settingsInForce() const;
    void post();
    void remember(std::string& problem, const vantryhost::Outcome<>& outcome);
    void collectProblems();

    std::optional<Document> preferences;
    vantryhost::Choices choices;
    bool hasSettings = false;
    std::uint64_t revision;
    RulesFile rulesFile;
    TunnelView tunnel;
    bool isTunnelKnown = false;
    bool isPostDue = true;      // the daemon may not have heard of the rules file as it is
    bool isStoringDue = false;  // what ended is in force and not yet in the file
    std::string preferencesProblem;
    std::string storingProblem;
    std::string rulesFileProblem;
    std::vector<std::string> notes;    // of the change under way
    std::vector<std::string> present;  // the problems, as they are said
};

}  // namespace vantrysettings
