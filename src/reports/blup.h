// BLUP run: the equations solved once at the given covariances.
#pragma once
namespace tarvex {
[[noreturn]] void get_ebvs();
void save_solutions(); // solutions.solns -> solutions.solsave, numbers before ordering
} // namespace tarvex
