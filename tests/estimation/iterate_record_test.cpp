// How many decimals the record of an iterate shows.
#include "estimation/aireml.h"

#include <gtest/gtest.h>

#include <string>

namespace tarvex {
namespace {

std::string form_for(double dd, double dnorm, double pnorm, double prox, int ncall = 5) {
    char form[] = "(a2,i5,f14.3,f10.0,f9.0,f11.2,f9.0,f8.4,i7,i5,g12.5,i2)";
    edit_iterate_form(form, {dd, dnorm, pnorm, prox, ncall});
    return {form[17], form[22], form[28], form[33]};
}

TEST(iterate_record_test, decimals_follow_the_size) {
    EXPECT_EQ(form_for(2000, 2000, 2000, 2000), "0020");
    EXPECT_EQ(form_for(200, 200, 200, -200), "1131");
    EXPECT_EQ(form_for(20, 20, 20, -20), "2242");
    EXPECT_EQ(form_for(2, 2, 2, -2), "3353");
    EXPECT_EQ(form_for(0.2, 0.2, 0.2, -0.2), "4464");
    EXPECT_EQ(form_for(0.02, 1, 1, 1), "5464");
    EXPECT_EQ(form_for(0.002, 1, 1, 1)[0], '6');
    EXPECT_EQ(form_for(-500, 1, 1, 1)[0], '6');
    EXPECT_EQ(form_for(0.1, 1, 1, 1)[0], '5'); // the limits are short reals
    EXPECT_EQ(form_for(0.01, 1, 1, 1)[0], '5');
    EXPECT_EQ(form_for(1, 1, 1, 2000, 10000)[3], '6');
}

} // namespace
} // namespace tarvex
