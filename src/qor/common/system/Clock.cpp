#include "qor/common/system/Clock.h"
#include "qor/common/system/HighResolutionTimer.h"

#include <time.h>

#include <atomic>

namespace qor::common::system {

namespace {

std::atomic<std::uint32_t> s_TickOffset{0};
std::atomic<HighResolutionTimer::TickSource> s_TickSource{nullptr};

std::uint64_t monotonicNanos() noexcept
{
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000u + static_cast<std::uint64_t>(ts.tv_nsec);
}

} // namespace

std::uint32_t Clock::getTickCounter() noexcept
{
    const std::uint64_t millis = monotonicNanos() / 1000000u;
    return static_cast<std::uint32_t>(millis) + s_TickOffset.load(std::memory_order_relaxed);
}

void Clock::setTickCounterOffset(std::uint32_t offset) noexcept
{
    s_TickOffset.store(offset, std::memory_order_relaxed);
}

std::uint64_t HighResolutionTimer::getTicks() noexcept
{
    const TickSource source = s_TickSource.load(std::memory_order_acquire);
    return source != nullptr ? source() : monotonicNanos();
}

void HighResolutionTimer::setTickSource(TickSource source) noexcept
{
    s_TickSource.store(source, std::memory_order_release);
}

} // namespace qor::common::system
