// A server that lives to be killed. It takes up the agents of its predecessor on the same port.
//
// usage: kolvan-mortal-server PORT ID ARGUMENTS
//
// The first request for commands is answered with a run of the collector that has this id and these
// arguments; later ones are held. Every message that arrives is a line of standard output: its type
// and its id. Standard error has "serving" once agents are taken.

#include "tests/support/standin/ProfilingServer.h"

#include <chrono>
#include <exception>
#include <iostream>
#include <string>

#include <unistd.h>

namespace messages = kolvan::test::messages;

using kolvan::test::AgentMessage;
using kolvan::test::ProfilingServer;
using kolvan::test::ServerSettings;

int main(int argumentCount, char** arguments) try {
    if (argumentCount != 4) {
        return 2;
    }
    ServerSettings settings;
    settings.port = std::stoi(arguments[1]);
    settings.pollTimeout = std::chrono::hours(1);
    settings.observer.onMessage = [](const AgentMessage& message) {
        std::cout << message.type << " " << message.parameter("id") << std::endl;
    };
    ProfilingServer server(settings);
    server.send(messages::execute(arguments[2], arguments[3]));
    std::cerr << "serving" << std::endl;
    for (;;) {
        ::pause();
    }
} catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
    return 1;
}
