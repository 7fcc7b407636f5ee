#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Lab/demo-client/Conversations.h"

namespace {

using Milliseconds = std::chrono::milliseconds;

struct Arguments {
    std::string address;
    uint16_t port = 0;
    std::string device;
    std::string unicastInterface;
    std::string datagramInterface;
    uint16_t sourcePort = 0;
    bool isMapped = false;
    bool isUnconnected = false;
    double patienceSeconds = 5;
    double durationSeconds = 10;
    double paceSeconds = 0.02;
    double repeatSeconds = 0;
    uint64_t bytes = 100000;
    uint64_t count = 100;
    bool isInChild = false;
    std::string path;
    bool isConnected = false;
};

Milliseconds milliseconds(double seconds) {
    return Milliseconds(static_cast<Milliseconds::rep>(seconds * 1000));
}

lab::Destination destinationOf(const Arguments& arguments) {
    const auto address = lab::Address::parse(arguments.address, arguments.port);
    if (!address) throw CLI::ValidationError("ADDRESS", arguments.address + " is no address");
    return {.address = *address,
            .bindDevice = arguments.device,
            .unicastInterface = arguments.unicastInterface,
            .datagramInterface = arguments.datagramInterface,
            .sourcePort = arguments.sourcePort,
            .isMapped = arguments.isMapped,
            .isUnconnected = arguments.isUnconnected,
            .patience = milliseconds(arguments.patienceSeconds),
            .pace = milliseconds(arguments.paceSeconds),
            .repeatAfter = milliseconds(arguments.repeatSeconds)};
}

[[noreturn]] void become(const std::vector<std::string>& program) {
    if (program.empty()) throw CLI::ValidationError("PROGRAM", "is missing");
    std::vector<char*> pointers;
    pointers.reserve(program.size() + 1);
    for (const auto& argument : program) pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    execv(pointers[0], pointers.data());
    std::cerr << "demo-client: " << program[0] << ": " << std::strerror(errno) << "\n";
    _exit(127);
}

void runChild(const std::function<void()>& work) {
    const auto child = fork();
    if (child == 0) {
        work();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
}

int serveCommands();

void addConversation(CLI::App& application, Arguments& arguments, const std::string& name,
                     const std::string& description,
                     std::function<lab::Report(const lab::Destination&)> conversation) {
    auto* command = application.add_subcommand(name, description);
    command->add_option("ADDRESS", arguments.address)->required();
    command->add_option("PORT", arguments.port)->required();
    command->add_option("--bind-device", arguments.device, "bind the socket to this interface");
    command->add_option("--unicast-interface", arguments.unicastInterface,
                        "choose this interface for what is sent (IP_UNICAST_IF)");
    command->add_option("--datagram-interface", arguments.datagramInterface,
                        "choose it with an unconnected datagram (IP_PKTINFO)");
    command->add_option("--source-port", arguments.sourcePort, "send from this port");
    command->add_flag("--mapped", arguments.isMapped, "an IPv6 socket and the IPv4-mapped address");
    command->add_flag("--unconnected", arguments.isUnconnected,
                      "send datagrams without connecting");
    command->add_option("--patience", arguments.patienceSeconds, "seconds to wait for an answer");
    command->add_option("--duration", arguments.durationSeconds, "seconds to go on");
    command->add_option("--pace", arguments.paceSeconds, "seconds between two things sent");
    command->add_option("--repeat", arguments.repeatSeconds,
                        "seconds after which datagrams without an answer are sent again");
    command->add_option("--bytes", arguments.bytes, "bytes to echo");
    command->add_option("--count", arguments.count, "connections to hold");
    command->add_option("--path", arguments.path, "where two processes meet to pass a socket");
    command->add_flag("--connected", arguments.isConnected, "connect before passing");
    command->add_flag("--in-child", arguments.isInChild,
                      "do it in a forked child of the same program");
    command->callback([&arguments, conversation = std::move(conversation)] {
        const auto destination = destinationOf(arguments);
        const auto work = [&] { conversation(destination).print(); };
        if (arguments.isInChild)
            runChild(work);
        else
            work();
    });
}

// What follows these commands is another program with its arguments, whatever they look like.
CLI::App* addProgram(CLI::App& application, const std::string& name,
                     const std::string& description) {
    auto* command = application.add_subcommand(name, description);
    command->prefix_command();
    return command;
}

void addPrograms(CLI::App& application) {
    auto* child = addProgram(application, "spawn", "run PROGRAM as a child and wait for it");
    child->callback([child] { runChild([child] { become(child->remaining()); }); });
    auto* successor = addProgram(application, "become", "go on as PROGRAM in this process");
    successor->callback([successor] { become(successor->remaining()); });
}

void parse(CLI::App& application, Arguments& arguments, std::vector<std::string> words) {
    const auto duration = [&] { return milliseconds(arguments.durationSeconds); };
    addConversation(application, arguments, "connect", "connect and take the server's greeting",
                    lab::connectOnce);
    addConversation(application, arguments, "upload", "connect and keep sending",
                    [=](const auto& place) { return lab::keepUploading(place, duration()); });
    addConversation(application, arguments, "read", "connect and keep reading a slow stream",
                    [=](const auto& place) { return lab::keepReading(place, duration()); });
    addConversation(application, arguments, "echo", "send bytes and compare what comes back",
                    [&](const auto& place) { return lab::echo(place, arguments.bytes); });
    addConversation(application, arguments, "tally",
                    "send bytes, end the sending, and take the server's answer",
                    [&](const auto& place) { return lab::tally(place, arguments.bytes); });
    addConversation(
        application, arguments, "crowd", "hold many connections at once",
        [&](const auto& place) { return lab::crowd(place, arguments.count, duration()); });
    addConversation(
        application, arguments, "chatter", "have many connections echo bytes until they are ended",
        [&](const auto& place) { return lab::chatter(place, arguments.count, duration()); });
    addConversation(
        application, arguments, "hoard",
        "ask for many downloads after a line of input and read them when it ends",
        [&](const auto& place) { return lab::hoard(place, arguments.count, arguments.bytes); });
    addConversation(application, arguments, "give", "pass a socket to another process",
                    [&](const auto& place) {
                        return lab::giveAway(place, arguments.path, arguments.isConnected);
                    });
    addConversation(application, arguments, "take",
                    "upload through a socket that another process passes",
                    [=, &arguments](const auto& place) {
                        return lab::takeOver(place, arguments.path, duration());
                    });
    addConversation(application, arguments, "datagram", "send one datagram and wait for the answer",
                    lab::askOnce);
    addConversation(application, arguments, "datagrams", "keep sending datagrams on one socket",
                    [=](const auto& place) { return lab::keepAsking(place, duration()); });
    addConversation(application, arguments, "resolve", "ask a name server for an address",
                    lab::resolve);
    addPrograms(application);
    application.add_subcommand("serve", "carry out a command a line of standard input")
        ->callback([] { serveCommands(); });
    application.require_subcommand(1);
    std::reverse(words.begin(), words.end());
    application.parse(words);
}

int carryOut(const std::vector<std::string>& words) {
    CLI::App application{"An application of the throw-away network: uses it and says what it got."};
    Arguments arguments;
    try {
        parse(application, arguments, words);
    } catch (const CLI::ParseError& error) {
        return application.exit(error);
    }
    return 0;
}

// One long-lived process that does one thing after another, so that a test can ask the same process
// again after the rules have changed.
int serveCommands() {
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream text(line);
        std::vector<std::string> words;
        for (std::string word; text >> word;) words.push_back(word);
        if (carryOut(words) != 0) return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) { return carryOut({argv + 1, argv + argc}); }
