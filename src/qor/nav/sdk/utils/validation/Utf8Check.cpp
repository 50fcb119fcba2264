// The choice among the paths of the UTF-8 check (Utf8Check.h).
#include "qor/nav/sdk/utils/validation/Utf8Check.h"

namespace qor::nav::sdk::utils::validation::detail {
namespace {

using PathCheck = bool (*)(const std::uint8_t* data, std::size_t size, bool rejectControls) noexcept;

// The scalar path beats a vector path's fixed costs on very short texts.
constexpr std::size_t kShortText = 16;

template <PathCheck kCheck, bool kRejectControls>
bool through(const std::uint8_t* data, std::size_t size) noexcept
{
    return size < kShortText ? scalarUtf8Check(data, size, kRejectControls) : kCheck(data, size, kRejectControls);
}

template <PathCheck kCheck>
constexpr Utf8CheckPath path(const char* name)
{
    return {name, &through<kCheck, false>, &through<kCheck, true>};
}

// Slowest first; the ones a processor has are a prefix of this list.
constexpr Utf8CheckPath kPaths[] = {
    path<&scalarUtf8Check>("scalar"),
#if defined(__x86_64__) || defined(__i386__)
    path<&sse41Utf8Check>("sse4.1"),
    path<&avx2Utf8Check>("avx2"),
#elif defined(__aarch64__)
    path<&neonUtf8Check>("neon"),
#endif
};

std::size_t countAvailablePaths() noexcept
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_cpu_init();
    if (!__builtin_cpu_supports("sse4.1"))
    {
        return 1;
    }
    return __builtin_cpu_supports("avx2") ? 3 : 2;
#else
    return sizeof kPaths / sizeof kPaths[0];
#endif
}

const Utf8CheckPath& fastestPath() noexcept
{
    static const Utf8CheckPath& s_Fastest = kPaths[countAvailablePaths() - 1];
    return s_Fastest;
}

} // namespace

const Utf8CheckPath* availableUtf8CheckPaths(std::size_t& count) noexcept
{
    count = countAvailablePaths();
    return kPaths;
}

bool isStrictUtf8(const std::uint8_t* data, std::size_t size) noexcept
{
    return fastestPath().isStrictUtf8(data, size);
}

bool isStrictUtf8WithoutControls(const std::uint8_t* data, std::size_t size) noexcept
{
    return fastestPath().isStrictUtf8WithoutControls(data, size);
}

} // namespace qor::nav::sdk::utils::validation::detail
