// A program with a slow function, for the demo: it prices orders, and finds each price by walking
// through the whole list, which nobody suspects behind the name of its caller.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Article {
    std::uint64_t number = 0;
    std::uint64_t cents = 0;
};

class PriceList {
public:
    explicit PriceList(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            articles.push_back({(i * 2'654'435'761U) % 1'000'003U, 100 + i % 900});
        }
    }

    [[gnu::noinline]] std::uint64_t findPriceByWalkingTheWholeList(std::uint64_t number) const {
        std::uint64_t cents = 0;
        for (const Article& article : articles) {
            cents = article.number == number ? article.cents : cents;
        }
        return cents;
    }

private:
    std::vector<Article> articles;
};

/// Orders are strings here as they are everywhere else.
[[gnu::noinline]] std::uint64_t parseOrder(std::uint64_t seed) {
    const std::string text = "order " + std::to_string(seed % 1'000'003U);
    return std::stoull(text.substr(6));
}

[[gnu::noinline]] std::uint64_t priceOrders(const PriceList& prices, std::uint64_t first) {
    constexpr std::uint64_t kOrders = 2'000;
    std::uint64_t sum = 0;
    for (std::uint64_t order = first; order < first + kOrders; ++order) {
        sum += prices.findPriceByWalkingTheWholeList(parseOrder(order * 7'919));
    }
    return sum;
}

void serve(const PriceList& prices, std::chrono::steady_clock::time_point end) {
    std::uint64_t sum = 0;
    for (std::uint64_t request = 0; std::chrono::steady_clock::now() < end; ++request) {
        sum += priceOrders(prices, request);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // the next request
    }
    std::printf("%llu\n", static_cast<unsigned long long>(sum));
}

}  // namespace

/// The only argument: for how many seconds it works.
int main(int argc, char** argv) {
    const PriceList prices(20'000);
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::seconds(argc > 1 ? std::stol(argv[1]) : 60);
    std::thread other(serve, std::cref(prices), end);
    serve(prices, end);
    other.join();
}
