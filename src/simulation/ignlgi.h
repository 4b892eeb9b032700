// Combined multiplicative congruential generator with 32 virtual generators (L'Ecuyer and Cote 1991, ACM Transactions
// on Mathematical Software 17:98).
#pragma once
#include <array>

namespace tarvex {

inline constexpr int generators = 32;

struct randomgen_module {
    std::array<int, generators> ig1{}, ig2{}; // initial seeds
    std::array<int, generators> lg1{}, lg2{}; // seeds of the block in hand
    std::array<int, generators> cg1{}, cg2{}; // current seeds
    std::array<bool, generators> qanti{};     // antithetic numbers
    int curntg = 1;                           // current generator
    bool qrgnin = false;                      // the generators have been set up
    bool qqssd = false;                       // seeds have been set
};
inline randomgen_module randomgen;

int ignlgi();       // next integer, 1..2147483562; sets default seeds if none were set
void setcgn(int g); // 1..32, or stops

} // namespace tarvex
