// Seeds of a simulation run: RandomSeeds, two integers.
#pragma once
namespace tarvex {
// Takes the seeds from the file, or from the clock; prints them, sets the generators and leaves two fresh seeds in the
// file for the next run. The stream that follows depends on the printed seeds only.
void setup_randnos();
} // namespace tarvex
