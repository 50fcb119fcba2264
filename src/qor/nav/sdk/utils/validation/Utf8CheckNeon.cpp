// The NEON path of the UTF-8 check; every AArch64 processor has NEON, so this
// file needs no compile flags of its own.
#include "qor/nav/sdk/utils/validation/Utf8Check.h"

#if defined(__aarch64__)

#include "qor/nav/sdk/utils/validation/Utf8CheckKernel.h"

#include <arm_neon.h>

namespace qor::nav::sdk::utils::validation::detail {
namespace {

struct Neon
{
    using Reg = uint8x16_t;
    static constexpr std::size_t kWidth = 16;

    static Reg load(const std::uint8_t* at) { return vld1q_u8(at); }
    static Reg splat(std::uint8_t byte) { return vdupq_n_u8(byte); }
    template <int N>
    static Reg previous(Reg input, Reg before)
    {
        return vextq_u8(before, input, 16 - N);
    }
    static Reg lookup(const std::uint8_t* table, Reg index) { return vqtbl1q_u8(vld1q_u8(table), index); }
    static Reg highNibble(Reg v) { return vshrq_n_u8(v, 4); }
    static Reg subs(Reg a, Reg b) { return vqsubq_u8(a, b); }
    static bool anyHigh(Reg v) { return vmaxvq_u8(v) >= 0x80; }
    static bool anySet(Reg v) { return vmaxvq_u8(v) != 0; }
};

} // namespace

bool neonUtf8Check(const std::uint8_t* data, std::size_t size, bool rejectControls) noexcept
{
    return utf8Check<Neon>(data, size, rejectControls);
}

} // namespace qor::nav::sdk::utils::validation::detail

#endif
