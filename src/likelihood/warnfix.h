// Diagnosis of a failing pivot in the first evaluation.
#pragma once
namespace tarvex {
void write_warnfix(int irow); // irow: row of the factor
} // namespace tarvex
