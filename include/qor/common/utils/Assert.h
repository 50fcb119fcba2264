// QOR_ASSERT(condition): an assertion that stays active in every build,
// including a user's NDEBUG build of code that includes our public headers.
//
//   QOR_ASSERT(elem != nullptr);   // aborts with "file:line: function: Assertion `elem != nullptr' failed."
//
// The report is the standard one (the C library's assertion failure, with
// the function name), so tools and tests that read assertion reports see no
// difference; only NDEBUG no longer switches it off. Checks that guard the
// library's own invariants belong here: a caller's misuse must not turn
// into silent corruption in a release build.
//
// The report is made inside libqor.common, because <assert.h> declares the C
// library's report function only while NDEBUG is unset.
//
// Threads: any thread; a failed check aborts the process.
#ifndef QOR_COMMON_UTILS_ASSERT_H
#define QOR_COMMON_UTILS_ASSERT_H

namespace qor::common::utils {

// Prints the standard assertion report for `condition` at the given place
// and aborts.
[[noreturn]] void assertionFailed(const char* condition, const char* file, unsigned int line,
                                  const char* function) noexcept;

} // namespace qor::common::utils

#define QOR_ASSERT(condition)                                                                                   \
    (static_cast<bool>(condition)                                                                               \
         ? void(0)                                                                                              \
         : ::qor::common::utils::assertionFailed(#condition, __FILE__, __LINE__, __PRETTY_FUNCTION__))

#endif
