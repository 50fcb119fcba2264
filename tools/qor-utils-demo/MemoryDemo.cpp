#include "MemoryDemo.h"

#include "Trace.h"

#include <algorithm>
#include <cmath>
#include <cstring>

using qor::nav::sdk::utils::memory::Critical;
using qor::nav::sdk::utils::memory::Elevated;
using qor::nav::sdk::utils::memory::High;
using qor::nav::sdk::utils::memory::MemoryManager;
using qor::nav::sdk::utils::memory::MemoryStatus;
using qor::nav::sdk::utils::memory::Normal;
using qor::nav::sdk::utils::timeline::Timeline;

namespace demo {

namespace {

long chunksInUse(const MemoryManager& budget)
{
    return std::lround(budget.getMemoryConsumption() * static_cast<float>(s_BudgetChunks));
}

} // namespace

const char* statusName(MemoryStatus status)
{
    switch (status)
    {
    case Normal: return "Normal";
    case Elevated: return "Elevated";
    case High: return "High";
    case Critical: return "Critical";
    }
    return "?";
}

StatusHistory::StatusHistory(const MemoryManager& budget) : m_Budget(budget), m_Levels{Normal} {}

void StatusHistory::onMemoryStatusChanged(MemoryStatus newStatus, MemoryStatus oldStatus)
{
    say(std::string("memory status ") + statusName(oldStatus) + " -> " + statusName(newStatus) + " (" +
        std::to_string(chunksInUse(m_Budget)) + " of " + std::to_string(s_BudgetChunks) + " chunks in use)");
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Levels.push_back(newStatus);
}

std::vector<MemoryStatus> StatusHistory::levels() const
{
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Levels;
}

std::string StatusHistory::describe() const
{
    std::string text;
    for (MemoryStatus level : levels())
    {
        text += (text.empty() ? "" : " -> ") + std::string(statusName(level));
    }
    return text;
}

MemoryJob::MemoryJob(Timeline& timeline, MemoryManager& budget)
    : m_Timeline(timeline), m_Budget(budget), m_Allocator("DemoTiles", budget)
{
}

MemoryJob::~MemoryJob()
{
    releaseAll();
}

void MemoryJob::execute()
{
    const int run = ++m_Runs;
    if (m_Phase == Phase::Done)
    {
        return;
    }
    Section section(m_Timeline, "memoryStep", "memory", ",\"args\":{\"run\":" + std::to_string(run) + "}");
    if (m_Phase == Phase::Growing)
    {
        grow();
    }
    else
    {
        shrink();
    }
}

void MemoryJob::grow()
{
    Section section(m_Timeline, "allocate", "memory");
    for (int i = 0; i < s_BlocksPerStep; ++i)
    {
        void* block = m_Allocator.allocate(s_BlockSize, __FILE__, __LINE__);
        if (block == nullptr)
        {
            say("memory block " + std::to_string(m_Blocks.size() + 1) + " refused at " +
                statusName(m_Budget.getMemoryStatus()) + ", with " +
                std::to_string(s_BudgetChunks - chunksInUse(m_Budget)) + " chunk(s) still free; giving back");
            m_Phase = Phase::Shrinking;
            return;
        }
        std::memset(block, 0x5A, s_BlockSize); // every byte asked for is ours
        m_Blocks.push_back(block);
        m_PeakBlocks = std::max(m_PeakBlocks, m_Blocks.size());
    }
}

void MemoryJob::shrink()
{
    Section section(m_Timeline, "free", "memory");
    for (int i = 0; i < s_BlocksPerStep && !m_Blocks.empty(); ++i)
    {
        m_Allocator.deallocate(m_Blocks.back(), s_BlockSize);
        m_Blocks.pop_back();
    }
    if (m_Blocks.empty())
    {
        say("memory budget filled and emptied again after " + std::to_string(m_Runs.load()) + " steps");
        m_Phase = Phase::Done;
        m_CycleDone.set();
    }
}

void MemoryJob::releaseAll()
{
    for (void* block : m_Blocks)
    {
        m_Allocator.deallocate(block, s_BlockSize);
    }
    m_Blocks.clear();
}

} // namespace demo
