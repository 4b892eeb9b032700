// Simulation of data on the structure of the given ones.
#pragma once

namespace tarvex {

struct simulation_module {
    int nrepsim = 0; // replicates
    int iseed1 = 0;  // seeds of the random number generator
    int iseed2 = 0;
    bool newseeds = false; // seeds do not come from the file
};
inline simulation_module simulation;

// Writes nrepsim data files with sampled effects at the given covariances.
void simulate_data();

} // namespace tarvex
