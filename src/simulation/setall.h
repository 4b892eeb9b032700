// Seeds of the virtual generators.
#pragma once
namespace tarvex {
// Seeds of generator 1; those of each further one lie a block of the period ahead.
void setall(int iseed1, int iseed2);
// Current generator: -1 back to its initial seeds, 0 to the start of the block in hand, 1 to the next block.
void initgn(int isdtyp);
int mltmod(int a, int s, int m); // a*s modulo m, 0 < a < m, 0 < s < m
} // namespace tarvex
