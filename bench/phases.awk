# Sums up the rows of compare_pipelines.sh --phases: of each sender the latency p50 of every session,
# their least, mean and greatest, and the CPU time and rate. With -v table=1 instead, for plotting:
# a row per millisecond with the share of pictures of the agent and of the build beside it.
{
  for (i = 6; i <= NF; i++) {
    split($i, pair, "=")
    value[pair[1]] = pair[2]
  }
  who = $5
  if (!(who in sessions)) names[++name_count] = who
  n = ++sessions[who]
  p50 = value["p50_ms"] + 0
  list[who] = list[who] " " p50
  sum[who] += p50
  if (n == 1 || p50 < least[who]) least[who] = p50
  if (n == 1 || p50 > most[who]) most[who] = p50
  cpu[who] += value["cpu_ms"]
  rate[who] += value["fps"]
  split(value["hist"], counts, ",")
  for (ms in counts) { histogram[who, ms] += counts[ms]; pictures[who] += counts[ms] }
  setting = $1 " @ " $2 " " $3
}
function share(who, ms) { return pictures[who] ? 100 * histogram[who, ms] / pictures[who] : 0 }
END {
  if (table) {
    for (ms = 1; ms <= 40; ms++) print ms - 0.5, share("agent", ms), share("beside", ms)
    exit
  }
  print setting
  for (k = 1; k <= name_count; k++) {
    who = names[k]
    printf "  %-16s p50 mean %.1f (%.1f-%.1f) ms, CPU %.2f ms/frame, %.2f fps; sessions:%s\n", who,
      sum[who] / sessions[who], least[who], most[who], cpu[who] / sessions[who],
      rate[who] / sessions[who], list[who]
  }
}
