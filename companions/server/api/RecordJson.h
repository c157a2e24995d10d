#pragma once

#include "companions/server/api/JsonWriter.h"
#include "companions/server/store/Records.h"
#include "companions/server/symbols/SymbolFiles.h"

#include <optional>
#include <string>

/// The records as the API shows them.
namespace kolvan::server::api {

void writeAgent(JsonWriter& json, const Agent& agent);
void writeCollectionFile(JsonWriter& json, const CollectionFile& file);
void writeSymbols(JsonWriter& json, const symbols::Symbols& symbols);
void writeUser(JsonWriter& json, const User& user);
void writeAuditLine(JsonWriter& json, const AuditLine& line);

/// A token of a program or of agents.
struct ShownToken {
    std::string id;
    std::string name;
    std::optional<Role> role;  ///< none: it is for agents
    bool shared = false;
    UtcTime made;
    std::optional<UtcTime> lastUsed;
    std::optional<UtcTime> revoked;
    std::optional<std::string> text;  ///< the token itself, right after it was made
};

void writeToken(JsonWriter& json, const ShownToken& token);

/// What is shown of a collection beside its record.
struct ShownCollection {
    Collection collection;
    std::string agentName;
    bool notConfirmed = false;
    bool hasProfile = false;
};

void writeCollection(JsonWriter& json, const ShownCollection& shown);

/// A page of a list, each item as `writeItem` shows it.
template <typename Item, typename WriteItem>
std::string pageJson(const Page<Item>& page, WriteItem writeItem) {
    JsonWriter json;
    json.object([&] {
        json.name("items");
        json.array([&] {
            for (const Item& item : page.items) {
                writeItem(json, item);
            }
        });
        json.name("next");
        if (page.next.empty()) {
            json.null();
        } else {
            json.value(page.next);
        }
    });
    return json.text();
}

/// One record as a text.
template <typename Record, typename Write>
std::string recordJson(const Record& record, Write write) {
    JsonWriter json;
    write(json, record);
    return json.text();
}

}  // namespace kolvan::server::api
