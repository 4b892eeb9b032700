#include "control/filenames.h"

namespace tarvex {

namespace {
// `name` with the running number of a relationship matrix at `place`; a number of two digits does not fit: "*".
std::string numbered(std::string name, std::size_t place, int number) {
    // the names have room for one digit
    if (place < name.size()) name[place] = number >= 0 && number <= 9 ? static_cast<char>('0' + number) : '*';
    return name;
}
} // namespace

std::string nrminv_name(int number) { return numbered(filenames.nrminvfile, 9, number); }
std::string cholnrm_name(int number) { return numbered(filenames.cholnrmfile, 7, number); }

} // namespace tarvex
