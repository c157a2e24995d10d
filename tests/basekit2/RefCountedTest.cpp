#include "basekit2/object_interface.h"
#include "basekit2/pool_allocator.h"
#include "basekit2/ref_counted.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <future>
#include <latch>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using basekit2::get_pool_allocator;
using basekit2::make_ref_counted;
using basekit2::mt_ref_count_impl_t;
using basekit2::ref_counted_t;
using basekit2::ref_ptr_t;

class Noted : public basekit2::serializable_object_interface_t {
public:
    explicit Noted(std::atomic<int>& destructionCount, int number = 0)
        : value(number), destructions(destructionCount) {}

    const std::string& get_type() const override {
        static const std::string type = "Noted";
        return type;
    }

    int value;

protected:
    ~Noted() override { ++destructions; }

private:
    std::atomic<int>& destructions;
};

class Special : public Noted {
public:
    using Noted::Noted;

protected:
    ~Special() override = default;
};

using CountedNoted = ref_counted_t<Noted, mt_ref_count_impl_t>;

TEST(RefCountTest, TheLastOneIsTold) {
    mt_ref_count_impl_t count;
    count.increment();
    count.increment();
    count.increment();

    EXPECT_FALSE(count.decrement());
    EXPECT_FALSE(count.decrement());
    EXPECT_TRUE(count.decrement());
}

TEST(RefCountTest, OnlyOneOfManyThreadsIsTheLast) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 300;
    for (int round = 0; round < kRounds; ++round) {
        mt_ref_count_impl_t count;
        std::atomic<int> last{0};
        std::latch together(kThreads);
        std::vector<std::future<void>> threads;
        for (int i = 0; i < kThreads; ++i) {
            count.increment();
        }
        for (int i = 0; i < kThreads; ++i) {
            threads.push_back(std::async(std::launch::async, [&] {
                together.arrive_and_wait();
                last += count.decrement() ? 1 : 0;
            }));
        }
        for (auto& thread : threads) {
            thread.get();
        }

        ASSERT_EQ(1, last.load());
    }
}

TEST(RefCountedTest, StartsWithoutAReferenceOfItsOwn) {
    std::atomic<int> destructions{0};
    auto* const object = new CountedNoted(destructions);

    object->add_ref();
    EXPECT_EQ(0, destructions.load());
    object->release();

    EXPECT_EQ(1, destructions.load());
}

TEST(RefCountedTest, LivesUntilTheLastReferenceIsReleased) {
    std::atomic<int> destructions{0};
    auto* const object = new CountedNoted(destructions);
    object->add_ref();
    object->add_ref();

    object->release();
    EXPECT_EQ(0, destructions.load());
    object->release();

    EXPECT_EQ(1, destructions.load());
}

TEST(RefCountedTest, PassesItsArgumentsOn) {
    std::atomic<int> destructions{0};

    const ref_ptr_t<Noted> object = make_ref_counted<Noted>(destructions, 42);

    EXPECT_EQ(42, object->value);
    EXPECT_EQ("Noted", object->get_type());
}

TEST(RefCountedTest, NobodyCanDeleteItDirectly) {
    EXPECT_FALSE(std::is_destructible_v<CountedNoted>);
    EXPECT_FALSE(std::is_copy_constructible_v<CountedNoted>);
    EXPECT_FALSE(std::is_copy_assignable_v<CountedNoted>);
}

TEST(RefPtrTest, EmptyOneOwnsNothing) {
    const ref_ptr_t<Noted> empty;
    const ref_ptr_t<Noted> null(nullptr);
    const ref_ptr_t<Noted> copy(empty);

    EXPECT_FALSE(empty);
    EXPECT_FALSE(null);
    EXPECT_FALSE(copy);
    EXPECT_EQ(nullptr, empty.get());
}

TEST(RefPtrTest, CopySharesAndKeepsTheObject) {
    std::atomic<int> destructions{0};
    ref_ptr_t<Noted> first = make_ref_counted<Noted>(destructions, 1);

    const ref_ptr_t<Noted> second(first);
    first = ref_ptr_t<Noted>();

    EXPECT_EQ(0, destructions.load());
    EXPECT_EQ(1, (*second).value);
}

TEST(RefPtrTest, MoveHandsTheReferenceOn) {
    std::atomic<int> destructions{0};
    {
        ref_ptr_t<Noted> first = make_ref_counted<Noted>(destructions);
        Noted* const object = first.get();

        const ref_ptr_t<Noted> second(std::move(first));

        EXPECT_EQ(object, second.get());
        EXPECT_EQ(0, destructions.load());
    }
    EXPECT_EQ(1, destructions.load());
}

TEST(RefPtrTest, AssignmentReleasesWhatWasOwned) {
    std::atomic<int> firstDestructions{0};
    std::atomic<int> secondDestructions{0};
    ref_ptr_t<Noted> pointer = make_ref_counted<Noted>(firstDestructions);

    pointer = make_ref_counted<Noted>(secondDestructions);

    EXPECT_EQ(1, firstDestructions.load());
    EXPECT_EQ(0, secondDestructions.load());
}

TEST(RefPtrTest, AssignmentToItselfChangesNothing) {
    std::atomic<int> destructions{0};
    ref_ptr_t<Noted> pointer = make_ref_counted<Noted>(destructions, 7);
    const ref_ptr_t<Noted>& same = pointer;

    pointer = same;

    EXPECT_EQ(0, destructions.load());
    EXPECT_EQ(7, pointer->value);
}

TEST(RefPtrTest, PointerToABaseSharesADerivedObject) {
    std::atomic<int> destructions{0};
    {
        ref_ptr_t<Special> special = make_ref_counted<Special>(destructions, 5);

        const ref_ptr_t<Noted> base(special);
        special = ref_ptr_t<Special>();

        EXPECT_EQ(0, destructions.load());
        EXPECT_EQ(5, base->value);
    }
    EXPECT_EQ(1, destructions.load());
}

TEST(RefPtrTest, ObjectSharedByManyThreadsIsDestroyedOnceByTheLast) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 200;
    std::atomic<int> destructions{0};
    for (int round = 0; round < kRounds; ++round) {
        ref_ptr_t<Noted> original = make_ref_counted<Noted>(destructions);
        std::latch together(kThreads);
        std::vector<std::future<void>> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.push_back(std::async(std::launch::async, [&together, mine = original] {
                together.arrive_and_wait();
                for (int copies = 0; copies < 20; ++copies) {
                    const ref_ptr_t<Noted> copy(mine);
                    EXPECT_EQ(0, copy->value);
                }
            }));
        }
        original = ref_ptr_t<Noted>();
        for (auto& thread : threads) {
            thread.get();
        }
        threads.clear();

        ASSERT_EQ(round + 1, destructions.load());
    }
}

/// The strictest alignment that an object of this size can ask for: its size is a multiple of it.
std::size_t alignmentFor(std::size_t size) {
    return std::min(size & (~size + 1), alignof(std::max_align_t));
}

TEST(PoolAllocatorTest, BlocksAreAlignedAndApart) {
    constexpr std::size_t kBlocks = 200;
    for (const std::size_t size : {1U, 8U, 16U, 24U, 48U, 100U, 112U, 176U, 1008U, 4096U, 65552U}) {
        std::vector<unsigned char*> blocks;
        for (std::size_t i = 0; i < kBlocks; ++i) {
            blocks.push_back(static_cast<unsigned char*>(get_pool_allocator().allocate(size)));
            std::memset(blocks.back(), static_cast<int>(i), size);
        }

        for (std::size_t i = 0; i < kBlocks; ++i) {
            EXPECT_EQ(0U, reinterpret_cast<std::uintptr_t>(blocks[i]) % alignmentFor(size)) << size;
            EXPECT_EQ(std::vector<unsigned char>(size, static_cast<unsigned char>(i)),
                      std::vector<unsigned char>(blocks[i], blocks[i] + size));
            get_pool_allocator().deallocate(blocks[i], size);
        }
    }
}

TEST(PoolAllocatorTest, ReturnedBlocksAreUsedAgain) {
    constexpr int kRounds = 100;
    constexpr std::size_t kBlocks = 100;
    constexpr std::size_t kReserve = 1000;  // what a pool may keep beyond what is in use
    std::set<void*> different;
    for (int round = 0; round < kRounds; ++round) {
        std::vector<void*> blocks;
        for (std::size_t i = 0; i < kBlocks; ++i) {
            blocks.push_back(get_pool_allocator().allocate(48));
        }
        different.insert(blocks.begin(), blocks.end());
        for (void* const block : blocks) {
            get_pool_allocator().deallocate(block, 48);
        }
    }

    EXPECT_GT(kBlocks + kReserve, different.size());
}

TEST(PoolAllocatorTest, CountedObjectsReturnTheirBlocks) {
    constexpr int kRounds = 10000;
    constexpr std::size_t kReserve = 1000;
    std::atomic<int> destructions{0};
    std::set<const void*> different;
    for (int round = 0; round < kRounds; ++round) {
        different.insert(make_ref_counted<Noted>(destructions).get());
    }

    EXPECT_EQ(kRounds, destructions.load());
    EXPECT_GT(kReserve, different.size());
}

TEST(PoolAllocatorTest, ManyThreadsDoNotGetTheSameBlock) {
    constexpr int kThreads = 8;
    std::vector<std::future<bool>> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.push_back(std::async(std::launch::async, [i] {
            const std::vector<unsigned char> expected(64, static_cast<unsigned char>(i));
            bool untouched = true;
            for (int round = 0; round < 2000; ++round) {
                auto* const block =
                    static_cast<unsigned char*>(get_pool_allocator().allocate(expected.size()));
                std::memcpy(block, expected.data(), expected.size());
                untouched = untouched && std::memcmp(block, expected.data(), expected.size()) == 0;
                get_pool_allocator().deallocate(block, expected.size());
            }
            return untouched;
        }));
    }

    for (auto& thread : threads) {
        EXPECT_TRUE(thread.get());
    }
}

}  // namespace
