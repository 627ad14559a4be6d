// Vector lanes, through Highway: the widest that the processor has, chosen when the program runs, with the same bits in
// each. For sources of this library alone: it is not installed, nor is Highway known to callers.
//
// A source with kernels in lanes is compiled once for each width. So it has no include guard before its kernels, and
// looks like this:
//
//     #undef HWY_TARGET_INCLUDE
//     #define HWY_TARGET_INCLUDE "baseop/detail/Example.cpp"
//     #include <baseop/detail/Lanes.hpp>
//
//     HWY_BEFORE_NAMESPACE();
//     namespace Vantle::detail::HWY_NAMESPACE {
//     ... kernels ...
//     } // namespace Vantle::detail::HWY_NAMESPACE
//     HWY_AFTER_NAMESPACE();
//
//     #if HWY_ONCE
//     ... everything else, with HWY_EXPORT(kernel) and calls of HWY_DYNAMIC_DISPATCH(kernel)(...)
//     #endif
//
// What keeps the bits the same: sums of the same number of terms in every width, or of none; no MulAdd and its like,
// which round once where the processor can (`Mul` and `Add` stay two, by -ffp-contract=off); `IfThenElse` instead of
// `Min` and `Max` wherever NaN or the sign of zero matters, since these follow the processor; `Eq`, `Lt` and `Gt` but
// not `Ne`, which in some widths says that NaN does not differ from itself.

// Of x86: plain code, SSE4, AVX2 and AVX-512. Between these lie steps that have nothing kernels here would use.
#ifndef HWY_DISABLED_TARGETS
#    define HWY_DISABLED_TARGETS (HWY_SSSE3 | HWY_AVX3_DL)
#endif

#include <hwy/foreach_target.h>
#include <hwy/highway.h>
