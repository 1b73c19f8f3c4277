# shellcheck shell=bash
# bash completion for orvex-play

_orvex_play() {
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()
    case $previous in
    --codec) mapfile -t COMPREPLY < <(compgen -W "h264 hevc" -- "$word") ;;
    --bitrate) mapfile -t COMPREPLY < <(compgen -W "auto" -- "$word") ;;
    --size)
        mapfile -t COMPREPLY < <(compgen -W "1280x720 1920x1080 2560x1440 3840x2160" -- "$word")
        ;;
    --token-file)
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        ;;
    --token | --fps) ;;
    *)
        if [[ $word == -* ]]; then
            mapfile -t COMPREPLY < <(compgen -W "--token-file --token --size --fps --codec
                --bitrate --fullscreen --no-audio --view-only --stats --help --version" -- "$word")
        else
            mapfile -t COMPREPLY < <(compgen -A hostname -- "$word")
        fi
        ;;
    esac
}
complete -F _orvex_play orvex-play
