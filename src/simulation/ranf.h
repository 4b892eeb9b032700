// Uniform and standard normal random numbers on the current generator.
#pragma once
namespace tarvex {
float ranf(); // uniform on the open interval (0,1), 32-bit
// Standard normal by the FL method with 5 bits (Ahrens and Dieter 1973, Mathematics of Computation 27:927).
float snorm();
int irandno(int n); // uniform on 1..n; n below 1 or above 2147483561 stops. n = 1 draws nothing
} // namespace tarvex
