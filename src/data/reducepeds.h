// Reduction of the pedigree to animals with data and their ancestors.
#pragma once
namespace tarvex {
// Drops animals that neither have data nor are ancestors of animals with data: writes ReducedPedFile.dat and makes
// filenames.pedfile name it when there are any.
void reducepeds();
} // namespace tarvex
