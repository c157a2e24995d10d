#include "tests/support/FakeOperations.h"

#include "tests/support/Gate.h"

#include <stdexcept>
#include <utility>

namespace kolvan::test {

FakeOperations::Call FakeOperations::waitForCall(const std::string& function, std::size_t n) {
    std::unique_lock lock(mutex);
    Call found;
    const auto hasCome = [&] {
        std::size_t seen = 0;
        for (const Call& call : recorded) {
            if (call.function == function && ++seen == n) {
                found = call;
                return true;
            }
        }
        return false;
    };
    if (!changed.wait_for(lock, kDeadline, hasCome)) {
        throw std::runtime_error("call " + std::to_string(n) + " of " + function + " has not come");
    }
    return found;
}

std::vector<FakeOperations::Call> FakeOperations::calls() {
    const std::lock_guard lock(mutex);
    return recorded;
}

std::vector<FakeOperations::Call> FakeOperations::calls(const std::string& function) {
    std::vector<Call> found;
    for (const Call& call : calls()) {
        if (call.function == function) {
            found.push_back(call);
        }
    }
    return found;
}

std::vector<std::string> FakeOperations::callTexts() {
    std::vector<std::string> texts;
    for (const Call& call : calls()) {
        std::string text = call.function;
        for (const std::string& argument : call.arguments) {
            text += "[" + argument + "]";
        }
        texts.push_back(text);
    }
    return texts;
}

void FakeOperations::onConnect() {
    record("onConnect", {});
    if (connectBody) {
        connectBody();
    }
}

void FakeOperations::onDisconnect() {
    record("onDisconnect", {});
    if (disconnectBody) {
        disconnectBody();
    }
}

void FakeOperations::onError(const std::string& errorMessage) {
    record("onError", {errorMessage});
    if (errorBody) {
        errorBody(errorMessage);
    }
}

int FakeOperations::execute(std::vector<std::string> args, OperationMessenger&& messenger) {
    OperationMessenger own = std::move(messenger);
    record("execute", args);
    return perform(args.empty() ? std::string() : args.front(), own);
}

int FakeOperations::performCollection(std::string options, std::string traceUploadDirectory,
                                      OperationMessenger&& messenger) {
    OperationMessenger own = std::move(messenger);
    record("performCollection", {options, traceUploadDirectory});
    return perform(options, own);
}

int FakeOperations::collectionCommand(std::string command, OperationMessenger&& messenger) {
    OperationMessenger own = std::move(messenger);
    record("collectionCommand", {command});
    return perform(command, own);
}

void FakeOperations::cancelOperations() {
    record("cancelOperations", {});
    if (cancelBody) {
        cancelBody();
    }
}

void FakeOperations::record(const std::string& function, std::vector<std::string> arguments) {
    const std::lock_guard lock(mutex);
    recorded.push_back({function, std::move(arguments), std::this_thread::get_id()});
    changed.notify_all();
}

int FakeOperations::perform(const std::string& name, OperationMessenger& messenger) {
    const auto body = bodies.find(name);
    return body != bodies.end() ? body->second(messenger) : 0;
}

}  // namespace kolvan::test
