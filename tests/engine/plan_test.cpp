#include "graph/plan.h"
#include "graph/plan_exchange.h"

#include <gtest/gtest.h>
#include <thread>

using namespace sonetrix::dev;

namespace {

constexpr uint32_t rate = 48000;
constexpr uint32_t block = 16;

/// Adds its inputs and a constant; every port carries the same value throughout a block.
class Adder final : public Module {
public:
    Adder(std::string name, float constant)
        : Module(std::move(name), Type::plugin, {"out"}, {"in_1", "in_2"}, block), constant_(constant) {}

    void process(const float *const *inputs, uint32_t frames) noexcept override {
        for (uint32_t i = 0; i < frames; ++i)
            output(0)[i] = inputs[0][i] + inputs[1][i] + constant_;
    }

private:
    const float constant_;
};

/// Modules a, b, c... after the system module, wired by pairs of letters such as "ab": a feeds b.
struct Wiring {
    explicit Wiring(size_t count, const std::vector<std::string> &links) {
        modules.push_back({std::make_shared<SystemModule>(block, nullptr, nullptr, true), {{}, {}}});
        for (size_t i = 0; i < count; ++i)
            modules.push_back({std::make_shared<Adder>(std::string(1, static_cast<char>('a' + i)), 1.0F), {{}, {}}});
        for (const std::string &link : links) {
            auto &inputs = module(link[1]).inputs;
            inputs[inputs[0] ? 1 : 0] = Source{module(link[0]).module.get(), 0};
        }
    }
    WiredModule &module(char letter) { return modules[static_cast<size_t>(letter - 'a') + 1]; }
    float value(char letter) { return module(letter).module->output(0)[block - 1]; }

    std::vector<WiredModule> modules;
};

std::string orderOf(const Plan &plan) {
    std::string order;
    plan.forEach([&](const Module &module, const float *const *) {
        order += module.name() == SystemModule::moduleName ? "." : module.name();
    });
    return order;
}

TEST(Plan, runsSourcesFirstAndTheSystemModuleLast) {
    const struct {
        std::vector<std::string> links;
        const char *order;
    } cases[] = {
        {{}, "abcd."},
        {{"ba", "cb", "dc"}, "dcba."},
        {{"ad", "db", "dc"}, "adbc."},
        {{"ab", "bc", "ca"}, "bcad."}, // a circle: the first module waits for all others
        {{"aa", "ba"}, "bacd."},
    };
    for (const auto &expected : cases) {
        Wiring wiring(4, expected.links);
        EXPECT_EQ(orderOf(Plan(wiring.modules, rate, block)), expected.order);
    }
}

TEST(Plan, chainHasNoDelayAndCirclesOneBlock) {
    Wiring chain(3, {"cb", "ba"});
    Plan chainPlan(chain.modules, rate, block);
    chainPlan.run();
    EXPECT_EQ(chain.value('a'), 3.0F);

    Wiring loop(1, {"aa"});
    Plan loopPlan(loop.modules, rate, block);
    for (int blocks = 0; blocks < 5; ++blocks)
        loopPlan.run();
    EXPECT_EQ(loop.value('a'), 5.0F);

    Wiring circle(2, {"ab", "ba"}); // b adds a's last block, a adds b's
    Plan circlePlan(circle.modules, rate, block);
    for (int blocks = 0; blocks < 5; ++blocks)
        circlePlan.run();
    EXPECT_EQ(circle.value('b'), 9.0F);
    EXPECT_EQ(circle.value('a'), 10.0F);
}

TEST(Plan, isMadeInOneGoForThousandsOfModules) {
    Wiring wiring(1, {});
    for (int i = 0; i < 20000; ++i) {
        const Module *previous = wiring.modules.back().module.get();
        wiring.modules.push_back({std::make_shared<Adder>("m", 1.0F), {Source{previous, 0}, {}}});
    }
    std::swap(wiring.modules[1], wiring.modules.back()); // the search starts at the deep end
    Plan plan(wiring.modules, rate, block);
    plan.run();
    EXPECT_EQ(wiring.modules[1].module->output(0)[0], 20001.0F);
}

TEST(PlanExchange, freesEveryPlanOnceTheAudioThreadHasLeftIt) {
    Wiring wiring(1, {});
    const auto module = wiring.modules.back().module;
    const long references = module.use_count();
    {
        PlanExchange plans;
        plans.publish(std::make_unique<Plan>(wiring.modules, rate, block));
        std::jthread audio([&](const std::stop_token &stop) {
            while (!stop.stop_requested())
                plans.acquire()->run();
        });
        for (int i = 0; i < 2000; ++i) {
            plans.publish(std::make_unique<Plan>(wiring.modules, rate, block));
            plans.collect();
        }
        while (!plans.isTaken())
            std::this_thread::yield();
        audio.request_stop();
        audio.join();
        plans.collect();
        EXPECT_EQ(module.use_count(), references + 1);
    }
    EXPECT_EQ(module.use_count(), references);
}

} // namespace
