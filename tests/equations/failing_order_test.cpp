// Libraries that fail while orders are raced: the order drops out with a line, the run goes on with the best of the
// others. In this test program calls of the libraries come here first.
#include "control/filenames.h"
#include "equations/orders.h"
#include "estimation/estimates.h"
#include "support/fixture.h"
#include "support/record_file.h"
#include "support/small_models.h"

#include <cmath>
#include <dlfcn.h>
#include <filesystem>
#include <new>

namespace {

constexpr int any_error = -4;              // of METIS
int metis_calls = 0, metis_fails_from = 0; // 0: never
int metis_status = any_error;              // 0: no memory is left in place of a status
int scotch_status = 0;

} // namespace

extern "C" int METIS_NodeND(int* n, int* start, int* adjacent, int* weights, int* options, int* node, int* place) {
    if (++metis_calls >= metis_fails_from && metis_fails_from > 0) {
        if (metis_status == 0) throw std::bad_alloc();
        return metis_status;
    }
    static const auto library = reinterpret_cast<decltype(&METIS_NodeND)>(dlsym(RTLD_NEXT, "METIS_NodeND"));
    return library(n, start, adjacent, weights, options, node, place);
}

extern "C" int SCOTCH_graphOrder(void* graph, const void* strategy, int* place, int* node, int* blocks, int* range,
                                 int* tree) {
    if (scotch_status != 0) return scotch_status;
    static const auto library = reinterpret_cast<decltype(&SCOTCH_graphOrder)>(dlsym(RTLD_NEXT, "SCOTCH_graphOrder"));
    return library(graph, strategy, place, node, blocks, range, tree);
}

namespace tarvex {
namespace {

class failing_order : public tarvex_test {
protected:
    ~failing_order() override {
        metis_fails_from = scotch_status = 0;
        metis_status = any_error;
    }
    // log L at the start of an analysis whose orders are raced from a first one by minimum degree.
    double raced() {
        std::filesystem::remove(filenames.ordersfile);
        std::filesystem::remove(filenames.symfacfile);
        std::filesystem::remove("OperationCounts");
        new_analysis();
        clear_screen();
        metis_calls = 0;
        orders.race_from = orders.race_price = 0.0;
        small_model m;
        m.nq = 2;
        m.make_pedigree(60, 10, 3);
        m.make_rows(4, 1, 3, 0.2, 4);
        m.random = {{"animal", "NRM", 2, 0, {4.0, 1.0, 3.0}}};
        m.residual = {6.0, 1.0, 5.0};
        set_up(m);
        return program_logl(estimates.parvec);
    }
    int times_told(const std::string& text) const {
        int n = 0;
        const std::string all = screen_text();
        for (auto at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) ++n;
        return n;
    }
    static std::string counts() { return read_file("OperationCounts"); }
};

TEST_F(failing_order, drops_out_with_a_line) {
    const double truth = raced();
    EXPECT_EQ(times_told("Ordering method dropped"), 0);
    EXPECT_GT(metis_calls, 1);
    EXPECT_NE(counts().find("Scotch"), std::string::npos);
    EXPECT_NE(counts().find("Metis"), std::string::npos);

    scotch_status = 1;
    EXPECT_NEAR(raced(), truth, 1e-10 * std::fabs(truth));
    EXPECT_EQ(times_told("Ordering method dropped : SCOTCH  status = 1\n"), 1) << screen_text();
    EXPECT_EQ(times_told("Ordering method dropped"), 1);
    EXPECT_EQ(counts().find("Scotch"), std::string::npos);
    EXPECT_NE(counts().find("Metis"), std::string::npos);
}

TEST_F(failing_order, all_may_drop_out_but_the_first) {
    const double truth = raced();
    scotch_status = 1;
    metis_fails_from = 1;
    EXPECT_NEAR(raced(), truth, 1e-10 * std::fabs(truth));
    EXPECT_GE(times_told("Ordering method dropped : METIS  status = -4\n"), 2) << screen_text();
    EXPECT_EQ(orders.order_type, 1);
    EXPECT_EQ(counts().substr(0, 3), "MMD");
    EXPECT_EQ(counts().find('\n') + 1, counts().size()) << "one line";
}

TEST_F(failing_order, want_of_memory_drops_one_out) {
    const double truth = raced();
    metis_fails_from = 2;
    metis_status = 0;
    EXPECT_NEAR(raced(), truth, 1e-10 * std::fabs(truth));
    EXPECT_GE(times_told("Ordering method dropped : METIS"), 1) << screen_text();
    EXPECT_NE(counts().find("Scotch"), std::string::npos) << "the next ones are tried";
}

} // namespace
} // namespace tarvex
