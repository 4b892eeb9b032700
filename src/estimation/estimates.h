// The driver of the maximisation.
#pragma once
#include "estimation/bestpoint.h"
#include "parameters/parvec.h"

namespace tarvex {

void get_estimates(); // maximises log L by the plan of maximise.search_type

} // namespace tarvex
