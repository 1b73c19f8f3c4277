# Sums up the rows of compare_pipelines.sh: the median of the rounds of each figure, then the agent's
# ratios to the others. A ratio is taken within each round, whose runs met the same disturbances; the
# median and the spread of the rounds are shown. With -v table=NAME instead one row per setting with
# the median, least and greatest of that figure for each sender, for plotting.
{
  setting = $1 " @ " $2 " " $3
  if (!(setting in known)) { known[setting]; settings[++setting_count] = setting }
  if (!($5 in seen)) { seen[$5]; names[++name_count] = $5 }
  rounds[setting] = $4
  for (i = 6; i <= NF; i++) {
    split($i, pair, "=")
    value[setting, $5, pair[1], $4] = pair[2] + 0
  }
}
function sort_numbers(list, n,    i, j, t) {
  for (i = 2; i <= n; i++)
    for (j = i; j > 1 && list[j - 1] > list[j]; j--) { t = list[j]; list[j] = list[j - 1]; list[j - 1] = t }
}
function median_of(list, n) {
  sort_numbers(list, n)
  return n % 2 ? list[(n + 1) / 2] : (list[n / 2] + list[n / 2 + 1]) / 2
}
function median(setting, who, what,    r, list) {
  for (r = 1; r <= rounds[setting]; r++) list[r] = value[setting, who, what, r]
  return median_of(list, rounds[setting])
}
function ratio(setting, other, what,    r, n, list, middle) {
  for (r = 1; r <= rounds[setting]; r++)
    if (value[setting, other, what, r] > 0)
      list[++n] = value[setting, "agent", what, r] / value[setting, other, what, r]
  if (n == 0) return "-"
  middle = median_of(list, n)
  return sprintf("%.2f (%.2f-%.2f)", middle, list[1], list[n])
}
function spread(setting, who, what,    r, n, list, middle) {
  n = rounds[setting]
  for (r = 1; r <= n; r++) list[r] = value[setting, who, what, r]
  middle = median_of(list, n)
  return middle " " list[1] " " list[n]
}
function print_table(    s, k) {
  printf "setting"
  for (k = 1; k <= name_count; k++) if (names[k] != "x264") printf " %s low high", names[k]
  printf "\n"
  for (s = 1; s <= setting_count; s++) {
    printf "\"%s\"", settings[s]
    for (k = 1; k <= name_count; k++)
      if (names[k] != "x264") printf " %s", spread(settings[s], names[k], table)
    printf "\n"
  }
}
END {
  if (table) { print_table(); exit }
  for (s = 1; s <= setting_count; s++) {
    setting = settings[s]
    printf "\n%s\n  %-16s %12s %6s %8s %8s %8s %10s\n", setting, "medians", "CPU ms/frame", "fps",
      "p50 ms", "p99 ms", "peak MB", "burst kB"
    for (k = 1; k <= name_count; k++) {
      if (names[k] == "x264") continue
      printf "  %-16s %12.2f %6.1f %8.1f %8.1f %8.1f %10.0f\n", names[k],
        median(setting, names[k], "cpu_ms"), median(setting, names[k], "fps"),
        median(setting, names[k], "p50_ms"), median(setting, names[k], "p99_ms"),
        median(setting, names[k], "rss_mb"), median(setting, names[k], "burst_kb")
    }
    printf "  %-16s %12.2f\n", "x264 alone", median(setting, "x264", "cpu_ms")
    printf "  the agent, capture to last datagram: p50 %.1f ms, p99 %.1f ms; x264 alone: p50 %.1f ms\n",
      median(setting, "agent", "wire_p50_ms"), median(setting, "agent", "wire_p99_ms"),
      median(setting, "x264", "encode_p50_ms")
    printf "  %-16s %-20s %-20s %-20s\n", "agent / ...", "CPU", "latency p50", "memory"
    for (k = 1; k <= name_count; k++) {
      if (names[k] == "agent") continue
      printf "  %-16s %-20s %-20s %-20s\n", names[k], ratio(setting, names[k], "cpu_ms"),
        ratio(setting, names[k], "p50_ms"), ratio(setting, names[k], "rss_mb")
    }
  }
}
