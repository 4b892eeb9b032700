# Makes a C++ source that holds a file byte for byte: cmake -DIN=file -DOUT=source -DNAME=name -P embed.cmake
# declares  extern const unsigned char NAME[];  extern const unsigned long NAME_size;  in namespace tvx.
file(READ ${IN} bytes HEX)
string(LENGTH "${bytes}" length)
math(EXPR length "${length} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)"
  "\\1\n" bytes "${bytes}")
file(WRITE ${OUT} "namespace tvx {
extern const unsigned char ${NAME}[];
extern const unsigned long ${NAME}_size;
const unsigned char ${NAME}[] = {
${bytes}0};
const unsigned long ${NAME}_size = ${length};
} // namespace tvx
")
