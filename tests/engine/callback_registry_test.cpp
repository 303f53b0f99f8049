#include "events/callback_registry.h"

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

using namespace sonetrix::dev;
using namespace std::chrono_literals;

namespace {

using Action = std::function<void(int)>;
using Registry = CallbackRegistry<void (*)(int, void *)>;

void *addTo(Registry &registry, Action &action) {
    return registry.add([](int number, void *user) { (*static_cast<Action *>(user))(number); }, &action).get();
}

} // namespace

TEST(CallbackRegistryTest, callsInOrderOfRegistrationUntilRemoved) {
    Registry registry;
    std::vector<int> seen;
    std::array<Action, 4> actions;
    std::array<void *, 4> handles{};
    for (size_t i = 0; i < actions.size(); ++i) {
        actions[i] = [&seen, i](int number) { seen.push_back(number + static_cast<int>(i)); };
        handles[i] = addTo(registry, actions[i]);
    }
    EXPECT_TRUE(registry.remove(handles[1]));
    EXPECT_FALSE(registry.remove(handles[1]));
    EXPECT_FALSE(registry.remove(nullptr));
    registry.callAll(10);
    EXPECT_EQ(seen, (std::vector{10, 12, 13}));
    EXPECT_FALSE(registry.empty());
    for (void *handle : handles)
        registry.remove(handle);
    EXPECT_TRUE(registry.empty());
}

TEST(CallbackRegistryTest, aCallbackMayRemoveItselfAndOthersAndAdd) {
    Registry registry;
    int calls = 0;
    void *own = nullptr;
    void *next = nullptr;
    Action other = [&](int) { calls += 100; };
    Action self = [&](int) {
        ++calls;
        EXPECT_TRUE(registry.remove(own));
        EXPECT_TRUE(registry.remove(next));
        addTo(registry, other);
    };
    own = addTo(registry, self);
    next = addTo(registry, other);
    registry.callAll(0);
    EXPECT_EQ(calls, 1); // the removed one is not called, the added one not yet
    registry.callAll(0);
    EXPECT_EQ(calls, 101);
}

TEST(CallbackRegistryTest, removalWaitsForACallInProgress) {
    Registry registry;
    std::promise<void> entered;
    std::promise<void> goOn;
    std::atomic<bool> left{false};
    Action slow = [&](int) {
        entered.set_value();
        goOn.get_future().wait();
        left = true;
    };
    void *handle = addTo(registry, slow);
    std::jthread caller([&] { registry.callAll(0); });
    entered.get_future().wait();
    auto removal = std::async(std::launch::async, [&] {
        registry.remove(handle);
        return left.load();
    });
    EXPECT_EQ(removal.wait_for(50ms), std::future_status::timeout);
    Action unrelated = [](int) {};
    registry.remove(addTo(registry, unrelated)); // not held up by the slow one
    goOn.set_value();
    EXPECT_TRUE(removal.get());
}

TEST(CallbackRegistryTest, userPointersMayGoAfterRemovalUnderLoad) {
    Registry registry;
    std::jthread caller([&](const std::stop_token &stop) {
        while (!stop.stop_requested())
            registry.callAll(1);
    });
    std::array<std::jthread, 3> users;
    for (std::jthread &user : users) {
        user = std::jthread([&] {
            for (int i = 0; i < 2000; ++i) {
                int calls = 0; // not atomic: the sanitizers see a call after removal
                auto action = std::make_unique<Action>([&calls](int number) { calls += number; });
                void *handle = addTo(registry, *action);
                if (i % 8 == 0)
                    std::this_thread::sleep_for(50us);
                EXPECT_TRUE(registry.remove(handle));
                action.reset();
                calls = -1;
            }
        });
    }
    for (std::jthread &user : users)
        user.join();
    EXPECT_TRUE(registry.empty());
}

TEST(CallbackRegistryTest, aThreadThatEndsInACallbackLeavesNobodyWaiting) {
    Registry registry;
    Action ends = [](int) { pthread_exit(nullptr); };
    void *handle = addTo(registry, ends);
    std::thread caller([&] { registry.callAll(0); });
    caller.join();
    auto removal = std::async(std::launch::async, [&] { return registry.remove(handle); });
    EXPECT_TRUE(removal.get());
}
