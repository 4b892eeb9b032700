// Passes over the subjects: each owns its record, so that several may go on at a time.
#include "likelihood/likelihood.h"
#include "likelihood/subjects.h"
#include "parameters/parvec.h"
#include "support/fixture.h"
#include "support/small_models.h"

#include <optional>

using namespace tarvex;

namespace {

// All that a stream shows of a subject.
struct shown {
    int isubj = 0, nl = 0, icombi = 0;
    std::vector<int> eq, first, local, traits;
    std::vector<double> weight, y, rinv;
    double ldet = 0.0;
    bool operator==(const shown&) const = default;
};

shown look(const subject_stream& s) {
    const subject_design& d = s.design();
    const subject_record& r = s.record();
    shown out{s.isubj(), d.nl, r.icombi, d.eq, d.first, d.local, {}, d.weight, {}, s.rinv().v, s.ldet()};
    for (int i = 1; i <= d.nobs; ++i) {
        out.traits.push_back(r.ynq(i));
        out.y.push_back(r.yvec(i));
    }
    return out;
}

class subject_streams : public tarvex_test {
protected:
    static void evaluate(const small_model& m) {
        set_up(m);
        ASSERT_TRUE(loglike(estimates.parvec, 1).valid);
    }
    // A second stream runs ahead by `ahead` subjects, and a third starts over in the middle.
    static void compare(int ahead) {
        std::vector<shown> alone;
        {
            subject_stream s;
            while (s.next()) alone.push_back(look(s));
        }
        ASSERT_GT(alone.size(), 3u);
        subject_stream slow, fast;
        std::optional<subject_stream> third;
        for (int k = 0; k < ahead; ++k) ASSERT_TRUE(fast.next());
        for (std::size_t k = 0; k < alone.size(); ++k) {
            ASSERT_TRUE(slow.next());
            const std::size_t front = k + static_cast<std::size_t>(ahead);
            ASSERT_EQ(fast.next(), front < alone.size());
            if (k == alone.size() / 2) {
                third.emplace();
                ASSERT_TRUE(third->next());
                EXPECT_EQ(look(*third), alone[0]);
                third.reset(); // its end takes nothing from the others
            }
            EXPECT_EQ(look(slow), alone[k]) << k;
            if (front < alone.size()) {
                EXPECT_EQ(look(fast), alone[front]) << k;
            }
        }
        EXPECT_FALSE(slow.next());
    }
};

TEST_F(subject_streams, two_at_a_time_with_several_traits) {
    small_model m;
    m.nq = 2;
    m.make_pedigree(20, 6, 5);
    m.make_rows(4, 2, 3, 0.3, 6);
    m.covariable = true;
    m.random = {{"animal", "NRM", 2, 0, {1.3, 0.5, 1.8}}};
    m.residual = {2.1, 0.2, 1.9};
    evaluate(m);
    for (const int ahead : {1, 3}) compare(ahead);
}

TEST_F(subject_streams, two_at_a_time_in_random_regression) {
    small_model m;
    m.randreg = true;
    m.make_pedigree(16, 6, 7);
    m.make_rows(4, 3, 2, 0.0, 8);
    m.random = {{"animal", "NRM", 2, 0, {1.5, 0.2, 0.8}}};
    m.residual = {2.0};
    evaluate(m);
    for (const int ahead : {1, 3}) compare(ahead);
}

} // namespace
