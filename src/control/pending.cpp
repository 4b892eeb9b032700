// Stand-ins for phases that are still to be built: the program refuses what it cannot do yet. A real definition in the
// library takes precedence.
#include "control/tvxroutines.h"

#define TVX_PENDING(routine)                                                                                           \
    __attribute__((weak)) void routine() { tvx_notyet(); }

namespace tarvex {

TVX_PENDING(read_parfile)
TVX_PENDING(model2mudmap)
TVX_PENDING(reducepeds)
TVX_PENDING(pedigree_list)
TVX_PENDING(secateurs)
TVX_PENDING(data_scan1st)
TVX_PENDING(gen_inverses)
TVX_PENDING(cholnrm_animal)
TVX_PENDING(simulate_data)
TVX_PENDING(data_recode)
TVX_PENDING(write_modelsum)
TVX_PENDING(covs2parvec)
TVX_PENDING(pxem_setup)
TVX_PENDING(get_ebvs)
TVX_PENDING(get_estimates)
TVX_PENDING(write_fixsolns)
TVX_PENDING(write_randsolns)
TVX_PENDING(write_residuals)
TVX_PENDING(write_estimates)

} // namespace tarvex
