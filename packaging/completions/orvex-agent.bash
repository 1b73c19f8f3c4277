# shellcheck shell=bash
# bash completion for orvex-agent

_orvex_agent() {
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()
    case $previous in
    --capture) mapfile -t COMPREPLY < <(compgen -W "auto x11 portal synthetic" -- "$word") ;;
    --encoder) mapfile -t COMPREPLY < <(compgen -W "auto nvenc vaapi x264" -- "$word") ;;
    --codec) mapfile -t COMPREPLY < <(compgen -W "h264 hevc" -- "$word") ;;
    --saas-url) mapfile -t COMPREPLY < <(compgen -W "wss:// ws://" -- "$word") ;;
    --token | --token-sha256 | --display | --bitrate | --fps | --width | --height | --port-base | \
        --reconnect-grace) ;;
    *)
        mapfile -t COMPREPLY < <(compgen -W "--saas-url --token --token-sha256 --selftest --capture
            --display --encoder --codec --bitrate --fps --width --height --media-rfi
            --no-media-rfi --audio --no-audio --audio-parity --no-audio-parity --no-input
            --port-base --reconnect-grace -v --verbose -q --quiet -h --help --version" -- "$word")
        ;;
    esac
}
complete -F _orvex_agent orvex-agent
