// Parameter-expanded EM.
#pragma once

namespace tarvex {

// Sets up what PX-EM, and EM of reduced-rank fits, need besides the equations of the model.
void pxem_setup();

} // namespace tarvex
