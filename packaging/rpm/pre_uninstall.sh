# shellcheck shell=sh
# An agent that root has run logs beside its program. An update passes 1 or more.
if [ "$1" -eq 0 ]; then
    rm -f /usr/bin/agent.log /usr/bin/agent.1.log /usr/bin/agent.2.log /usr/bin/agent.3.log
fi
exit 0
