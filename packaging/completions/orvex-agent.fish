# fish completion for orvex-agent
complete -c orvex-agent -f
complete -c orvex-agent -l saas-url -x -a 'wss:// ws://' -d 'attach to the platform'
complete -c orvex-agent -l token -x -d 'agent token for the backend'
complete -c orvex-agent -l token-sha256 -x -d "SHA-256 of the launcher's token, standalone mode"
complete -c orvex-agent -l selftest -d 'check wire formats and codecs, then exit'
complete -c orvex-agent -l capture -x -a 'auto x11 portal synthetic' -d 'where the picture comes from'
complete -c orvex-agent -l display -x -d 'X display to capture'
complete -c orvex-agent -l encoder -x -a 'auto nvenc vaapi x264' -d 'encoder backend'
complete -c orvex-agent -l codec -x -a 'h264 hevc' -d 'video codec'
complete -c orvex-agent -l bitrate -x -d 'video bitrate, kbit/s'
complete -c orvex-agent -l fps -x -d 'frame rate'
complete -c orvex-agent -l width -x -d 'picture width'
complete -c orvex-agent -l height -x -d 'picture height'
complete -c orvex-agent -l media-rfi -d 'reference-frame invalidation'
complete -c orvex-agent -l no-media-rfi -d 'no reference-frame invalidation'
complete -c orvex-agent -l audio -d "stream the PC's sound"
complete -c orvex-agent -l no-audio -d 'no sound'
complete -c orvex-agent -l audio-parity -d 'repair packets for sound'
complete -c orvex-agent -l no-audio-parity -d 'no repair packets for sound'
complete -c orvex-agent -l no-input -d "do not inject the player's keyboard and mouse"
complete -c orvex-agent -l port-base -x -d 'first of six ports'
complete -c orvex-agent -l reconnect-grace -x -d 'seconds to hold a session for a lost launcher'
complete -c orvex-agent -s v -d 'log more'
complete -c orvex-agent -l verbose -d 'log in the terminal instead of the status screen'
complete -c orvex-agent -s q -l quiet -d 'log warnings and errors only'
complete -c orvex-agent -s h -l help -d 'print a summary of the options'
complete -c orvex-agent -l version -d 'print the version'
