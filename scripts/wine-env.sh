# Sourced by the scripts that run Windows programs: finds wine64 and keeps its
# prefix (created on first use, about 15 s) inside the repository's ignored
# build area unless WINEPREFIX says otherwise.
dsp_wine=${DSP_WINE:-}
if [[ -z $dsp_wine ]]; then
    if [[ -x /usr/lib/wine/wine64 ]]; then
        dsp_wine=/usr/lib/wine/wine64
    else
        dsp_wine=$(command -v wine64 || command -v wine || true)
    fi
fi
export WINEPREFIX=${WINEPREFIX:-$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/build-wineprefix}
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}
