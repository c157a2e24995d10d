#include "companions/profiler/output/HotFunctions.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <tuple>
#include <unordered_map>
#include <utility>

namespace kolvan::profiler {

namespace {

/// The numbers of the `most` elements that come first in the order of `comesFirst`.
template <typename Compare>
std::vector<std::uint32_t> firstOf(std::size_t size, std::size_t most, Compare comesFirst) {
    std::vector<std::uint32_t> numbers(size);
    std::iota(numbers.begin(), numbers.end(), 0U);
    const auto end = numbers.begin() + static_cast<std::ptrdiff_t>(std::min(most, size));
    std::partial_sort(numbers.begin(), end, numbers.end(), comesFirst);
    numbers.erase(end, numbers.end());
    return numbers;
}

/// Gives functions that are the same for a person one number.
class FunctionTable {
public:
    /// Stands for the calls of a stack without addresses.
    static constexpr std::uint32_t kNoStack = 0;

    explicit FunctionTable(const Profile& profile) {
        (void)add("[no stack]", "");  // becomes kNoStack
        std::unordered_map<std::uint64_t, std::uint32_t> known;
        callsAt.reserve(profile.locations.size());
        for (const Profile::Location& location : profile.locations) {
            const std::string& module = profile.modules[location.module].path;
            // Names are compared only once for each pair of module and function.
            const auto numberOf = [&](std::uint64_t function, auto name) {
                const auto [place, isNew] = known.try_emplace((function << 32) | location.module);
                if (isNew) {
                    place->second = add(name(), module);
                }
                return place->second;
            };
            std::vector<std::uint32_t>& calls = callsAt.emplace_back();
            for (const Profile::Line& line : location.lines) {
                calls.push_back(
                    numberOf(line.function, [&] { return profile.functions[line.function].name; }));
            }
            if (calls.empty()) {
                calls.push_back(numberOf(kNameless, [&] { return namelessIn(module); }));
            }
        }
    }

    std::size_t size() const noexcept { return functions.size(); }

    /// The functions at the address of a location, the innermost first; never none.
    const std::vector<std::uint32_t>& at(std::uint32_t location) const { return callsAt[location]; }

    HotFunctions::Function& operator[](std::uint32_t number) { return functions[number]; }
    const HotFunctions::Function& operator[](std::uint32_t number) const {
        return functions[number];
    }

private:
    static constexpr std::uint64_t kNameless = 0xFFFF'FFFF;  // the position of no function

    std::uint32_t add(const std::string& name, const std::string& module) {
        const auto [place, isNew] = numbers.try_emplace(
            std::pair(name, module), static_cast<std::uint32_t>(functions.size()));
        if (isNew) {
            functions.push_back({name, module, 0, 0});
        }
        return place->second;
    }

    std::map<std::pair<std::string, std::string>, std::uint32_t> numbers;  // by name and module
    std::vector<HotFunctions::Function> functions;
    std::vector<std::vector<std::uint32_t>> callsAt;  // each location
};

/// Calls `take` for each function of a stack, the innermost first.
template <typename Take>
void forEachCall(const FunctionTable& table, const std::vector<std::uint32_t>& stack, Take take) {
    for (const std::uint32_t location : stack) {
        for (const std::uint32_t function : table.at(location)) {
            take(function);
        }
    }
    if (stack.empty()) {
        take(FunctionTable::kNoStack);
    }
}

/// What all samples with the same stack stand for together; there are far fewer stacks.
std::vector<std::uint64_t> nanosecondsOfStacks(const Profile& profile) {
    std::vector<std::uint64_t> nanoseconds(profile.stacks.size());
    for (const Profile::Sample& sample : profile.samples) {
        nanoseconds[sample.stack] += sample.nanoseconds;
    }
    return nanoseconds;
}

void addTimes(FunctionTable& table, const Profile& profile,
              const std::vector<std::uint64_t>& nanoseconds) {
    // The last stack that counted for each function.
    std::vector<std::size_t> countedBy(table.size(), profile.stacks.size());
    for (std::size_t index = 0; index < profile.stacks.size(); ++index) {
        bool innermost = true;
        forEachCall(table, profile.stacks[index].locations, [&](std::uint32_t function) {
            if (std::exchange(innermost, false)) {
                table[function].self += nanoseconds[index];
            }
            if (std::exchange(countedBy[function], index) != index) {
                table[function].total += nanoseconds[index];
            }
        });
    }
}

/// All stacks, laid over each other from their roots on.
class CallTree {
public:
    explicit CallTree(const FunctionTable& functionTable) : table(functionTable) {}

    void add(const Profile::Stack& added, std::uint64_t nanoseconds) {
        std::vector<std::uint32_t>& stack = scratch;
        stack.clear();
        forEachCall(table, added.locations, [&stack](std::uint32_t function) {
            // Otherwise each depth of a recursion would be a path of its own.
            if (stack.empty() || stack.back() != function) {
                stack.push_back(function);
            }
        });
        std::uint32_t number = added.complete ? kComplete : kIncomplete;
        for (auto function = stack.rbegin(); function != stack.rend(); ++function) {
            number = child(number, *function);
            nodes[number].total += nanoseconds;
        }
        nodes[number].self += nanoseconds;
    }

    std::vector<HotFunctions::Path> hottest(std::size_t most) const {
        std::vector<HotFunctions::Path> paths;
        for (const std::uint32_t number :
             firstOf(nodes.size(), most, [this](std::uint32_t left, std::uint32_t right) {
                 return std::tuple(nodes[right].self, left) < std::tuple(nodes[left].self, right);
             })) {
            if (nodes[number].self > 0) {
                paths.push_back(pathTo(number));
            }
        }
        return paths;
    }

private:
    struct Node {
        std::uint32_t parent = 0;
        std::uint32_t function = 0;
        std::uint64_t self = 0;
        std::uint64_t total = 0;
    };

    // The nodes above the outermost calls of stacks that reach their root, and of others.
    static constexpr std::uint32_t kComplete = 0;
    static constexpr std::uint32_t kIncomplete = 1;

    std::uint32_t child(std::uint32_t parent, std::uint32_t function) {
        const auto [place, isNew] = children.try_emplace((std::uint64_t{parent} << 32) | function,
                                                         static_cast<std::uint32_t>(nodes.size()));
        if (isNew) {
            nodes.push_back({parent, function, 0, 0});
        }
        return place->second;
    }

    HotFunctions::Path pathTo(std::uint32_t number) const {
        HotFunctions::Path path;
        path.self = nodes[number].self;
        for (; number > kIncomplete; number = nodes[number].parent) {
            const HotFunctions::Function& function = table[nodes[number].function];
            path.calls.push_back({function.name, function.module, nodes[number].total});
        }
        path.complete = number == kComplete;
        std::reverse(path.calls.begin(), path.calls.end());
        return path;
    }

    const FunctionTable& table;
    std::vector<Node> nodes = std::vector<Node>(2);
    std::unordered_map<std::uint64_t, std::uint32_t> children;  // by parent and function
    std::vector<std::uint32_t> scratch;
};

}  // namespace

std::string namelessIn(std::string_view path) {
    path.remove_prefix(path.rfind('/') + 1);  // nothing where there is no '/'
    if (path.starts_with('[') && path.ends_with(']')) {
        path = path.substr(1, path.size() - 2);
    }
    return "[" + std::string(path) + "+0x...]";
}

HotFunctions findHotFunctions(const Profile& profile, std::size_t mostFunctions,
                              std::size_t mostPaths) {
    HotFunctions result;
    FunctionTable table(profile);
    const std::vector<std::uint64_t> nanoseconds = nanosecondsOfStacks(profile);
    result.nanoseconds = std::accumulate(nanoseconds.begin(), nanoseconds.end(), std::uint64_t{0});
    addTimes(table, profile, nanoseconds);
    for (const std::uint32_t number :
         firstOf(table.size(), mostFunctions, [&table](std::uint32_t left, std::uint32_t right) {
             return std::tuple(table[right].self, table[right].total, left) <
                    std::tuple(table[left].self, table[left].total, right);
         })) {
        if (table[number].total > 0) {
            result.functions.push_back(table[number]);
        }
    }
    if (mostPaths > 0) {
        CallTree tree(table);
        for (std::size_t index = 0; index < nanoseconds.size(); ++index) {
            tree.add(profile.stacks[index], nanoseconds[index]);
        }
        result.paths = tree.hottest(mostPaths);
    }
    return result;
}

}  // namespace kolvan::profiler
