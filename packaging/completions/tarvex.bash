# Completion of tarvex for bash: options, then parameter files without ".par".
_tarvex() {
    local word=${COMP_WORDS[COMP_CWORD]} file
    COMPREPLY=()
    case $word in
    -*)
        COMPREPLY=($(compgen -W "-v -v2 -t -c -d -zq --best --blup --simul --setup --setuplrg --limit --nologd --logdia
            --reorder --noreord --reconst --norecon --mmmpdst --nommmpd --metis --metisall --amd --mmd --aireml --strictai
            --nostrict --sure --nosure --nooptai --optimai --modaim --simplex --powell --pownew --emalg --pxem --emai --pxai
            --good --bad --cycle --self --nopru --allped --times --threads --super --wide --forchol --zero --accinb --json
            --help --version" -- "$word"))
        ;;
    *)
        while IFS= read -r file; do
            COMPREPLY+=("${file%.par}")
        done < <(compgen -f -X '!*.par' -- "$word")
        ;;
    esac
}
complete -F _tarvex tarvex
