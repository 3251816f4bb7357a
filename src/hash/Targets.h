// The instruction sets that the kernel is not compiled for. To be included before Highway's headers.
#pragma once

// The scalable ones: the kernel keeps vectors in arrays, which those forbid.
#ifndef HWY_DISABLED_TARGETS
#define HWY_DISABLED_TARGETS (HWY_SVE | HWY_SVE2 | HWY_SVE_256 | HWY_SVE2_128 | HWY_RVV)
#endif
