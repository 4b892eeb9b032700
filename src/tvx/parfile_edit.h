// Parameter files taken apart into lines, to write variants of an analysis: an effect left out, a lower rank, other
// data.
#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace tvx {

class parfile_text {
public:
    explicit parfile_text(std::string_view text);
    std::string text() const;

    // Lines of a VAR block: from its first to behind its last. Both equal: no block of this name.
    struct extent {
        std::size_t from = 0, to = 0;
    };
    extent var_block(const std::string& name) const;
    std::vector<std::string> random_blocks() const; // names of the VAR blocks but the residual's

    // Leaves a random effect out: its RAN lines, its VAR block (its part of a block of two correlated effects), the
    // pedigree where no effect is left that needs it, and all SE+ blocks, whose numbers would be others. A fault where
    // there is no such effect.
    void drop_effect(const std::string& effect);

    // Reduced rank of one block; the analysis becomes one of principal components. Faults: no such block, a rank
    // above its order, a diagonal block.
    void set_rank(const std::string& block, int rank);
    int order_of(const std::string& block) const;

    // Starting values of a block as they stand there (classes of residuals: with their ranges).
    std::vector<double> values(const std::string& block) const;
    // Other starting values for a block, in the layout that its lines have (residual classes with ranges: the third
    // number of each line). A fault where their number is another.
    void set_values(const std::string& block, const std::vector<double>& values);

    void drop_functions(); // all SE+ blocks

private:
    std::vector<std::string> lines_;
};

// Words of a line; a remark (#) has none.
std::vector<std::string> words_of(const std::string& line);
// First three letters of the keyword of a line in capitals.
std::string key_of(const std::string& line);

} // namespace tvx
