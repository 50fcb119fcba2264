// The strategy against a step-by-step model of its two queues, driven by
// random operations: untimed and timed adds (near, far, negative and wrapping
// delays, repeated ids), picks, direct hand-outs, drains, removals and jumps
// of the tick counter. After every step the strategy answers as the model
// does; it keeps no Function of a record it has handed out or dropped.
#include "qor/nav/sdk/utils/synchronization/BalancedStrategy.h"

#include "qor/common/errors/IllegalStateException.h"
#include "qor/common/system/Clock.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <deque>
#include <random>

namespace {

using namespace qor::nav::sdk::utils::synchronization;
using qor::common::errors::IllegalStateException;
using qor::common::system::Clock;
using testing::ThrowsMessage;

struct NoOp : Function
{
    void execute() override {}
};

bool notEarlier(std::uint32_t a, std::uint32_t b) { return static_cast<std::uint32_t>(a - b) < 0x80000000u; }

// {id, due tick} in the order the strategy hands them out.
using Queue = std::deque<std::pair<unsigned long, std::uint32_t>>;

unsigned long take(Queue& queue)
{
    const unsigned long id = queue.front().first;
    queue.pop_front();
    return id;
}

// Untimed records first in first out; a timed record goes in front of the
// first one that is not earlier (equal ticks: newest first). A pick asks the
// timed queue (due records only) and the untimed queue in the preferred
// order, which flips after every pick that found something.
struct Model
{
    Queue untimed, timed;
    bool preferUntimed = false;

    bool timedDue(std::uint32_t now) const { return !timed.empty() && notEarlier(now, timed.front().second); }
    Queue* next(std::uint32_t now)
    {
        return timedDue(now) && (!preferUntimed || untimed.empty()) ? &timed : untimed.empty() ? nullptr : &untimed;
    }
    unsigned wait(std::uint32_t now) const
    {
        return untimed.empty() && !timed.empty() && !timedDue(now) ? timed.front().second - now : 0u;
    }
    void remove(unsigned long id)
    {
        for (Queue* queue : {&untimed, &timed}) {
            queue->erase(std::remove_if(queue->begin(), queue->end(), [id](const auto& r) { return r.first == id; }),
                         queue->end());
        }
    }
};

TEST(BalancedStrategyTest, FollowsTheQueueModelUnderRandomOperations)
{
    // Timed delays are k * 2^29 ms less [0, spread) ms and the counter jumps
    // by multiples of 2^29 ms, so whether a record is due cannot change while
    // the test runs. The range of k decides how often the queue spans half the
    // counter's range or more; a small spread gives many equal ticks. Extra
    // timed adds grow long queues, where insertion searches from its fingers.
    const int phases[][4] = {{0, 1, 1, 0},      {1, 1, 3, 0},       {0, 3, 2000, 0}, {-8, 8, 1, 0},
                             {-8, 8, 2000, 0}, {1, 1, 40, 999}, {0, 3, 2000, 999}};
    const std::uint32_t probes[] = {0u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu};
    std::uint32_t offset = 0xFFFFFFFFu - 999u - Clock::getTickCounter(); // just before the wrap
    Clock::setTickCounterOffset(offset);
    std::mt19937 random(15);
    unsigned long nextId = 1;
    for (const auto& phase : phases) {
        Model model;
        auto strategy = std::make_unique<BalancedStrategy>();
        std::vector<std::weak_ptr<Function>> functions;
        for (int step = 0; step < 5000; ++step) {
            const unsigned drawn = random() % (32 + phase[3]);
            const unsigned op = drawn < 32 ? drawn : 4 + drawn % 8;
            const std::size_t queued = model.untimed.size() + model.timed.size();
            if (op < 12) { // add; now and then with the id of the previous add
                const unsigned long id = op == 0 && queued != 0 ? nextId - 1 : nextId++;
                const auto function = std::make_shared<NoOp>();
                functions.push_back(function);
                const FunctionExecution record{FunctionExecutionId(id), function, 0u};
                const long delay = (phase[0] + static_cast<long>(random() % (phase[1] - phase[0] + 1))) * (1L << 29) -
                                   static_cast<long>(random() % phase[2]);
                const std::uint32_t due = Clock::getTickCounter() + static_cast<std::uint32_t>(delay);
                if (op < 4) {
                    strategy->addFunctionExecution(record);
                    model.untimed.emplace_back(id, 0u);
                    continue;
                }
                strategy->addFunctionExecution(record, Duration(delay));
                model.timed.emplace(std::find_if(model.timed.begin(), model.timed.end(),
                                                 [&](const auto& r) { return notEarlier(r.second, due); }),
                                    id, due);
                if (Clock::getTickCounter() + static_cast<std::uint32_t>(delay) != due) { // due tick unknown
                    strategy->removeFunctionExecution(FunctionExecutionId(id));
                    model.remove(id);
                }
            } else if (op < 20 && model.next(Clock::getTickCounter()) == nullptr) {
                ASSERT_THAT([&] { strategy->getNextFunctionExecution(); },
                            ThrowsMessage<IllegalStateException>("No pending functionExecutions"));
            } else if (op < 20) {
                const unsigned long id = take(*model.next(Clock::getTickCounter()));
                model.preferUntimed = !model.preferUntimed;
                ASSERT_EQ(id, strategy->getNextFunctionExecution().id.getValue());
            } else if (op < 24) { // hand out the first record of a queue, due or not; or all timed ones
                Queue& queue = op % 2 == 0 ? model.timed : model.untimed;
                auto handOut = [&] {
                    return op % 2 == 0 ? strategy->getNextTimedFunctionExecution()
                                       : strategy->getNextUntimedFunctionExecution();
                };
                for (bool again = true; again && !queue.empty(); again = op == 22) {
                    ASSERT_EQ(take(queue), handOut().id.getValue());
                }
                if (queue.empty()) {
                    ASSERT_THAT(handOut, ThrowsMessage<IllegalStateException>("Queue is empty"));
                }
            } else if (op < 31) { // remove an unknown id, the latest timed record or any record
                const std::size_t i = random() % std::max<std::size_t>(queued, 1);
                const unsigned long id = op == 24 || queued == 0           ? nextId
                                         : op < 27 && !model.timed.empty() ? model.timed.back().first
                                         : i < model.untimed.size()        ? model.untimed[i].first
                                                                           : model.timed[i - model.untimed.size()].first;
                strategy->removeFunctionExecution(FunctionExecutionId(id));
                model.remove(id);
            } else {
                Clock::setTickCounterOffset(offset += static_cast<std::uint32_t>(random() % 8) << 29);
            }

            ASSERT_EQ(model.untimed.empty() && model.timed.empty(), strategy->empty());
            const std::uint32_t before = Clock::getTickCounter();
            const bool pending = strategy->hasPendingFunctionExecutions();
            const unsigned wait = strategy->getTimeToNextFunctionExecution();
            const std::uint32_t after = Clock::getTickCounter();
            ASSERT_EQ(model.next(before) != nullptr, pending);
            ASSERT_TRUE(wait <= model.wait(before) && wait >= model.wait(after)) << wait;
            const std::uint32_t probe = model.timed.empty() ? static_cast<std::uint32_t>(random())
                                                            : model.timed.front().second + probes[op % 4];
            ASSERT_EQ(model.timedDue(probe), strategy->hasPendingTimedFunctionExecution(probe));
        }
        // Only queued records keep their Functions, until the strategy goes.
        const auto alive = [&] {
            return std::count_if(functions.begin(), functions.end(), [](const auto& f) { return !f.expired(); });
        };
        EXPECT_EQ(static_cast<long>(model.untimed.size() + model.timed.size()), alive());
        strategy.reset();
        EXPECT_EQ(0, alive());
    }
    Clock::setTickCounterOffset(0);
}

} // namespace
