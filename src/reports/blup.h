// BLUP run: the equations solved once at the given covariances.
#pragma once
namespace tarvex {
[[noreturn]] void get_ebvs();
} // namespace tarvex
