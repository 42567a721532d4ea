// Glove arcs: sharp bends of a profile through a local z maximum, measured by
// the drop of the forward chord's slope angle around the point. The work is
// done by the kernel in glove_arcs_kernel.h; the AVX2 kernels are chosen at
// run time where the processor has them.
#include "glove_arcs_kernel.h"

PA_API void rk_getLineGloveArcs(const std::vector<SKesp3DPosition>& linePts, int lineIdx, SHX_gloveArcParam param,
                                std::vector<SHX_basicFeature1D>& gloveArcs) {
    pa_detail::glove_arcs::detect(linePts, lineIdx, param, gloveArcs, pa_detail::avx2KernelsChosen());
}
