#pragma once

#include "companions/client/Json.h"

#include <cstddef>
#include <string>

/// What the server says, as text for a terminal.
namespace kolvan::client {

std::string agentsView(const JsonValue& agents);
std::string processesView(const JsonValue& list);
std::string collectionsView(const JsonValue& collections);
std::string collectionView(const JsonValue& collection);
std::string agentTokensView(const JsonValue& tokens);
std::string topView(const JsonValue& top, std::size_t most);
std::string comparisonView(const JsonValue& comparison, std::size_t most);

}  // namespace kolvan::client
