#include "Platform/Linux/Steering/SteeringTable.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <utility>

#include "Platform/Linux/PlatformLog.h"
#include "Platform/Linux/Rules/PacketRule.h"

namespace platform::steering {

namespace {

const std::string table = std::string("table inet ") + interception::steeringTableName;

std::string textOf(const InterfaceAddress& address) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    ::inet_ntop(address.family, address.bytes.data(), text.data(), text.size());
    return text.data();
}

std::string listOf(const std::vector<InterfaceAddress>& addresses) {
    std::string list;
    if (addresses.size() == 1) return textOf(addresses.front());
    for (const auto& address : addresses) list += textOf(address) + ", ";
    return "{ " + list + "}";
}

// Texts of the conditions and statements that the rules are made of.
class Words {
public:
    explicit Words(SteeringMarks steeringMarks) : marks(steeringMarks) {}

    // What most packets are: of a claimed connection that is neither watched nor held back. One comparison.
    std::string isOrdinaryBy(unsigned number) const {
        return masked("ct mark", marks.mask()) +
               std::to_string(marks.ofConnection(FlowState::claimed, number)) + " ";
    }
    std::string isSteeredBy(unsigned number) const {
        return masked("ct mark", marks.numberMask()) + "{ " +
               std::to_string(marks.ofConnection(FlowState::claimed, number)) + ", " +
               std::to_string(marks.ofConnection(FlowState::claimedAndWatched, number)) + " } ";
    }
    // By the number of an interface that has gone, or is not known here yet.
    std::string isSteeredByNone(const std::vector<Uplink>& uplinks) const {
        std::string list;
        for (unsigned number = 1; number <= mostUplinks; ++number) {
            if (std::ranges::find(uplinks, number, &Uplink::number) != uplinks.end()) continue;
            for (const FlowState state : {FlowState::claimed, FlowState::claimedAndWatched})
                list.append(std::to_string(marks.ofConnection(state, number))).append(", ");
        }
        return masked("ct mark", marks.numberMask()) + "{ " + list + "} ";
    }
    std::string isSteered() const {
        const std::uint32_t state = marks.place().stateMask();
        return masked("ct mark", state) + "{ " +
               std::to_string(marks.ofConnection(FlowState::claimed, 0)) + ", " +
               std::to_string(marks.ofConnection(FlowState::claimedAndWatched, 0)) + " } ";
    }
    std::string hasPacketMark(std::uint32_t mark) const {
        return masked("meta mark", marks.mask()) + std::to_string(mark) + " ";
    }
    std::string setPacketMark(unsigned number) const {
        return "meta mark set meta mark & " + std::to_string(~marks.mask()) + " | " +
               std::to_string(marks.ofPacket(number)) + " ";
    }
    // Content of a connection that is held back, whichever its interface is.
    std::string isHeldContent() const {
        const std::uint32_t state = marks.place().stateMask();
        return masked("ct mark", state | marks.flag()) + "{ " +
               std::to_string(marks.ofConnection(FlowState::claimed, 0) | marks.flag()) + ", " +
               std::to_string(marks.ofConnection(FlowState::claimedAndWatched, 0) | marks.flag()) +
               " } meta l4proto tcp @ih,0,8 >= 0 ";
    }

private:
    static std::string masked(const std::string& what, std::uint32_t mask) {
        return what + " & " + std::to_string(mask) + " == ";
    }

    SteeringMarks marks;
};

std::string chain(const std::string& name, const std::string& hook, const std::string& content) {
    return " chain " + name + " {\n type " + hook + "; policy accept;\n" + content + " }\n";
}

struct Family {
    int number;
    const char* source;
    const char* translation;
    const char* protocol;
};
constexpr std::array<Family, 2> families{
    {{AF_INET, "ip saddr ", "snat ip to ", "meta nfproto ipv4 "},
     {AF_INET6, "ip6 saddr ", "snat ip6 to ", "meta nfproto ipv6 "}}};

// What a kernel may lack.
struct Extras {
    bool hasFtpHelpers;
    bool hasTimeouts;
};
constexpr std::array<Extras, 4> extrasToTry{
    {{true, true}, {false, true}, {true, false}, {false, false}}};

// In active mode the client tells the server its own address, which is the tunnel's: the kernel writes
// the uplink's in its place, and lets the connection that the server makes in, as a part of the client's.
constexpr const char* ftpHelpers =
    " ct helper ftp { type \"ftp\" protocol tcp; l3proto ip; }\n"
    " ct helper ftp6 { type \"ftp\" protocol tcp; l3proto ip6; }\n";
constexpr const char* useOfFtpHelpers =
    "meta nfproto ipv4 tcp dport 21 ct helper set \"ftp\"\n"
    "meta nfproto ipv6 tcp dport 21 ct helper set \"ftp6\"\n";

// A half-closed connection whose server takes its time is forgotten after a minute or two, by default, and then its
// answer finds no way back: two hours, TCP's own time before it asks whether the peer is there. Five days are the
// default for established ones.
constexpr const char* timeouts =
    " ct timeout lasting { protocol tcp; l3proto ip;"
    " policy = { established : 432000, fin_wait : 7200, close_wait : 7200 }; }\n"
    " ct timeout lasting6 { protocol tcp; l3proto ip6;"
    " policy = { established : 432000, fin_wait : 7200, close_wait : 7200 }; }\n";
constexpr const char* useOfTimeouts =
    "meta nfproto ipv4 meta l4proto tcp ct timeout set \"lasting\"\n"
    "meta nfproto ipv6 meta l4proto tcp ct timeout set \"lasting6\"\n";

// Objects, and a chain for the first packet of a connection.
std::string beginningText(const Extras& extras) {
    std::string objects;
    std::string uses;
    if (extras.hasFtpHelpers) {
        objects += ftpHelpers;
        uses += useOfFtpHelpers;
    }
    if (extras.hasTimeouts) {
        objects += timeouts;
        uses += useOfTimeouts;
    }
    return objects + " chain beginning {\n" + uses + " }\n";
}

void sayLack(const Extras& extras) {
    if (!extras.hasTimeouts)
        platformLog.info(
            "The kernel has no connection times of one's own (nfnetlink_cttimeout): direct "
            "connections that are half-closed and silent for a minute or two get no answer any "
            "more");
    if (!extras.hasFtpHelpers)
        platformLog.info(
            "The kernel has no help for FTP (nf_nat_ftp): active FTP of direct applications does "
            "not work");
}

std::string leavesBy(const Uplink& uplink) {
    return interception::isPlainName(uplink.name)
               ? "oifname \"" + uplink.name + "\" "
               : "meta oif " + std::to_string(uplink.interfaceIndex) + " ";
}

std::string tableText(SteeringMarks marks, const std::vector<Uplink>& uplinks,
                      const Extras& extras) {
    const Words words(marks);
    std::string leaving;
    std::string checking;
    std::string arriving;
    // Ordinary packets leave each chain by one of its first rules.
    for (const Uplink& uplink : uplinks) {
        const std::string isOrdinary = words.isOrdinaryBy(uplink.number);
        std::string setMark = words.setPacketMark(uplink.number);
        setMark += "accept\n";
        leaving.append(isOrdinary).append("ct state established ").append(setMark);
        checking.append(isOrdinary).append("accept\n");
        arriving += isOrdinary + setMark;
    }
    arriving += words.isHeldContent() + "drop\n";
    std::string naming;
    std::string guarding;
    for (const Uplink& uplink : uplinks) {
        const unsigned number = uplink.number;
        const std::string hasMark = words.hasPacketMark(marks.ofPacket(number));
        const std::string leavesHere = leavesBy(uplink) + hasMark;
        const std::string setMark = words.setPacketMark(number) + "\n";
        leaving += words.isSteeredBy(number) + setMark;
        leaving += words.hasPacketMark(marks.ofSocket(number)) + setMark;
        arriving += words.isSteeredBy(number) + setMark;
        for (const Family& family : families) {
            const Reach& reach = uplink.reach(family.number);
            if (reach.source) {
                const std::string isOther =
                    leavesHere + family.source + "!= " + listOf(reach.addresses) + " ";
                naming += isOther + family.translation + textOf(*reach.source) + "\n";
                guarding += isOther + "drop\n";
            } else {
                guarding += leavesHere + family.protocol + "drop\n";
            }
        }
    }
    // The first packet comes again.
    if (uplinks.size() < mostUplinks) checking += words.isSteeredByNone(uplinks) + "drop\n";
    checking += words.isHeldContent() + "drop\n" + words.isSteeredBy(unreachableNumber) +
                // The error message itself counts as the connection's, too.
                "meta l4proto { tcp, udp } reject with icmpx type host-unreachable\n";
    leaving += words.isSteered() + "jump beginning\n";
    return table + " {\n" + beginningText(extras) +
           chain("leaving", "route hook output priority 200", leaving) +
           chain("checking", "filter hook output priority 201", checking) +
           chain("arriving", "filter hook prerouting priority -149", arriving) +
           chain("naming", "nat hook postrouting priority 100", naming) +
           chain("guarding", "filter hook postrouting priority 150", guarding) + "}\n";
}

}  // namespace

bool SteeringTable::run(const std::string& commands) {
    auto answer = language.run(commands);
    output = std::move(answer.output);
    if (!answer.isDone) failureText = std::move(answer.failure);
    return answer.isDone;
}

std::string SteeringTable::listed() { return run("list " + table) ? output : ""; }

bool SteeringTable::install(const std::vector<Uplink>& uplinks) {
    // The chains stay where they are as they should be: when one goes, the kernel drops all packets that wait for a
    // verdict. Else the new nat chain is there before the old one goes, so that connections keep their translation.
    // Adding a table that exists is no error, deleting or flushing one that does not is.
    inForce.clear();
    const std::string adding = "add " + table + "\n";
    const std::string emptying = adding + "flush " + table + "\n";
    const std::string replacing = adding + "delete " + table + "\n";
    for (const auto* begin : {&emptying, &replacing}) {
        for (const auto& extras : extrasToTry) {
            if (!run(*begin + tableText(marks, uplinks, extras))) continue;
            inForce = listed();
            if (!std::exchange(hasSaidLack, true)) sayLack(extras);
            return true;
        }
    }
    return false;
}

bool SteeringTable::isComplete() { return !inForce.empty() && listed() == inForce; }

void SteeringTable::remove() {
    run("add " + table + "\ndelete " + table + "\n");
    inForce.clear();
}

}  // namespace platform::steering
