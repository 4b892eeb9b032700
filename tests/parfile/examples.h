// Parameter files of small analyses that several tests read.
#pragma once
#include <gtest/gtest.h>
#include <string>

namespace tarvex::examples {

// Univariate animal model.
inline const std::string weaning = R"(COM Weaning weight, animal model
DAT wean.dat
 animal 2000    # no limit is needed for NRM, one may stand
 herd   30
 sex    2
 age
 weight
END
PED wean.ped
ANA UNI         # univariate
MOD
 FIX herd
 FIX sex
 COV age(1,POL)
 RAN animal NRM
 TRAIT weight 1 -999
END
VAR animal 1
 30.0
VAR residual 1
 70.0
)";

// Repeated records of cows.
inline const std::string repeatability = R"(COM Repeatability model
DAT milk.dat
 cow
 cowpe  800
 herd   25
 parity 5
 milk
END
PED milk.ped
ANA UNI
MOD
 FIX herd
 FIX parity
 RAN cow NRM
 RAN cowpe IDE
 TR milk
END
VAR cow 1
 200
VAR cowpe 1
 80
VAR residual 1
 400
)";

// Two traits, same model, all traits in one line.
inline const std::string two_traits = R"(DAT two.dat
 animal 2000
 herd 30
 wwt
 ywt
END
PED two.ped
ANA MUV 2
MOD EQ
 FIX herd
 RAN animal NRM
 TRAIT wwt 1 -9
 TRAIT ywt 2 -9
END
VAR animal 2
 10.0 3.0
      12.0
VAR residual 2
 20.0 5.0 +
 25.0
)";

// Two of several traits with trait lists; a line belongs to one trait.
inline const std::string renumbered = R"(ANA MUV 2
DAT multi.dat
 TR1 qno
 animal 2000
 herd 30
 dam 900
 wwt
 TR2 qno
 animal 2000
 herd 30
 dam 900
 ywt
END
PED multi.ped
MOD
 FIX herd 1 2
 RAN animal NRM 1 2
 RAN dam IDE 1
 TRAIT wwt "3"->1 -9
 TRAIT ywt "5"->2 -9
END
VAR animal 2
 10 3 12
VAR dam 1
 2.5
VAR residual 2
 20 5 25
)";

// Four traits, rank two of four.
inline const std::string four_pc = R"(DAT four.dat
 animal 2000
 herd 30
 y1
 y2
 y3
 y4
END
PED four.ped
ANA MUV PC 4
MOD EQ
 FIX herd
 RAN animal NRM
 TRAIT y1 1
 TRAIT y2 2
 TRAIT y3 3
 TRAIT y4 4
END
VAR animal 4 2
 10 4 3 2 +
 9 3 2
 8 2
 7
VAR residual 4
 20 2 2 2 20 2 2 20 2 20
)";

// Random regression, homogeneous residual.
inline const std::string growth = R"(DAT growth.dat
 animal 500
 pe 500
 cg 20
 age 40
 weight
END
PED growth.ped
ANA RR
MOD
 FIX cg
 COV age(2,LEG)
 RAN animal(3,LEG) NRM
 RAN pe(2,LEG) IDE
 RRC age
 TRAIT weight 1 -9
END
VAR animal 3
 20 4 1 5 0.5 2
VAR pe 2
 15 2 4
VAR residual 1 HOM
 12.0
)";

// Residual block for three classes of age.
inline const std::string growth_het = R"(VAR residual 1 HET 3 age
  1 10  9.0
 11 20 12.0
 21 40 15.0
)";

// Three traits in grouped form, a trait a line.
inline const std::string grouped = R"(ANA MUV 3
DAT grp.dat GRP
 TRN 1 2 3
 qno
 animal 2000
 herd 30
 NAM w1 w2 w3
END
PED grp.ped
MOD
 FIX herd 1 2
 MEA 3
 RAN animal NRM
 TRAIT w1 1 -9
 TRAIT w2 2 -9
 TRAIT w3 3 -9
END
VAR animal 3
 10 1 1 10 1 10
VAR residual 3
 20 1 1 20 1 20
)";

// Extra blocks behind the repeatability model.
inline const std::string extras = R"(ZER
 parity 5
END
PSE 0.0
 cow 17
END
SE+
 SUM phenvar 1 2 3
 SUM half 2(0.5)
 VRA herit 2 4
 VRA repeat_cow 5 4
END
)";

// Diagonal block of a supplied inverse.
inline const std::string diagonal = R"(VAR litter 2 DIA
 3.0 4.0
)";

inline const std::string textbook_uni = R"(COM Pre-weaning gain of five calves, animal model
ANA UNI
PED ped.dat
DAT data.dat
  animal 8
  sex 2
  wwg
END
MOD
  FIX sex
  RAN animal NRM
  TR wwg
END
VAR animal 1
  20.0
VAR residual 1
  40.0
)";

inline const std::string textbook_rep = R"(COM Fat yield of five cows, repeatability model
ANA UNI
PED ped.dat
DAT data.dat
  cow 8
  perm 8
  parity 2
  hys 4
  fat
END
MOD
  FIX parity
  FIX hys
  RAN cow NRM
  RAN perm IDE
  TR fat
END
VAR cow 1
  20.0
VAR perm 1
  12.0
VAR residual 1
  28.0
)";

inline const std::string textbook_biv = R"(COM Pre- and post-weaning gain of five calves, two traits
ANA MUV 2
PED ped.dat
DAT data.dat
  animal 8
  sex 2
  wwg
  pwg
END
MOD EQ
  FIX sex
  RAN animal NRM
  TR wwg 1 -999
  TR pwg 2 -999
END
VAR animal 2
  20.0 18.0 40.0
VAR residual 2
  40.0 11.0 30.0
)";

inline const std::string rr_chick = R"(COM Growth of chicks on four diets, random regression on day
ANA RR
DAT data.dat
  chick 50
  diet 4
  day 30
  dietday 500
  weight
END
MOD
  FIX dietday
  RAN chick(3,LEG) IDE
  RRC day
  TR weight
END
VAR chick 3
  12.0  6.0  1.0
        4.0  1.0
             1.0
VAR residual 1 HET 3 day
  0 6 0.2
  7 14 1.0
  15 21 2.0
)";

// The text with one piece put in place of another.
inline std::string with(std::string text, const std::string& from, const std::string& to) {
    const auto at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

} // namespace tarvex::examples
