// Streaming of the inverse relationship matrix of a random effect: the NRM file, the supplied inverse or the identity.
#pragma once
#include <vector>

namespace tarvex {

struct inverse_element {
    int col, row; // levels, col <= row
    double value;
};

// Elements of the lower triangle of block irand in file order. NRM elements are read from their binary file; those of a
// supplied inverse are kept in memory after the first reading of the text; IDE gives (l,l,1) for every level.
// `logdet` is the log determinant that stands in the file (0 for IDE). A file that cannot be read stops the run.
class inverse_stream {
public:
    explicit inverse_stream(int irand);
    ~inverse_stream();
    inverse_stream(const inverse_stream&) = delete;
    inverse_stream& operator=(const inverse_stream&) = delete;
    bool next(inverse_element& e);
    double logdet() const { return logdet_; }
    void rewind();

private:
    struct impl;
    impl* p_;
    double logdet_ = 0.0;
};

} // namespace tarvex
