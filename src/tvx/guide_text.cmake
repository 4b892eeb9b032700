# Writes OUT, a source file that holds the text of the user's guide IN.
file(READ ${IN} text)
file(WRITE ${OUT} "#include \"tvx/guide_text.h\"\n\nnamespace tvx {\n\nstd::string_view guide_text() {\n    return R\"guide(${text})guide\";\n}\n\n} // namespace tvx\n")
