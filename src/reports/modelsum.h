// Summary of the model and of the data structure.
#pragma once

namespace tarvex {

void write_modelsum(); // SumModel.out

} // namespace tarvex
