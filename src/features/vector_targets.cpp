// The vector path the library takes, as Highway chooses it; see
// chosenVectorTarget in internal.h.
#include "internal.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "features/vector_targets.cpp"
#include <hwy/foreach_target.h>  // includes this file once per target
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace pa_detail {
namespace HWY_NAMESPACE {
int64_t thisTarget() { return HWY_TARGET; }
}  // namespace HWY_NAMESPACE
}  // namespace pa_detail
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace pa_detail {
HWY_EXPORT(thisTarget);

int64_t chosenVectorTarget() { return HWY_DYNAMIC_DISPATCH(thisTarget)(); }

bool avx2KernelsChosen() {
#if PA_AVX2_KERNELS
    return (chosenVectorTarget() & (HWY_AVX2 | HWY_AVX3 | HWY_AVX3_DL)) != 0;
#else
    return false;
#endif
}
}  // namespace pa_detail
#endif  // HWY_ONCE
