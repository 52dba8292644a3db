# Turns what scripts/bench has measured into Markdown.

def names: ["service", "bare", "rsyslogd", "syslog-ng", "busybox"];

# A number as people write it: 12,345 from 100 on, else with at most two decimals.
def readable:
  if type != "number" then (. // "" | tostring)
  elif . >= 100 then
    (round | tostring) as $digits
    | ($digits | length % 3) as $head
    | [($digits[0:$head] | select(. != "")),
       range($head; $digits | length; 3) as $i | $digits[$i:$i + 3]] | join(",")
  else . * 100 | round / 100 | tostring
  end;

def ratio: if . == null then "none" else . * 100 | round / 100 | tostring end;

# A rate that the sender might have exceeded.
def at_least($limited): if $limited then "at least \(readable)" else readable end;

# One row. $of: values by name. $wanted and $result: text.
def row($what; $of; $wanted; $result):
  "| " + ([$what] + [names[] as $name | $of[$name] | readable] + [$wanted, $result] | join(" | ")) + " |";
def row($what; $of): row($what; $of; ""; "");

def met: if . then "met" else "**missed**" end;

def limit: "\(.relation) \(.limit | readable)";

# The median of rounds, with the lowest and the highest.
def rounds: "\(.ratio | ratio) (\(.ratio_lowest | ratio) to \(.ratio_highest | ratio))";

# A comparison with the bare loop, and the limit of its ratio as the programs give it.
def beside_bare($compared; $relation; $limit):
  {wanted: "\($relation) \($limit) x bare loop",
   result: "\($compared | rounds): \((if $relation == "at most" then $compared.ratio <= $limit else $compared.ratio >= $limit end) | met)"};

# The same for highest rates. A sender that was the limit of one of them leaves open what that one
# might have reached.
def rate_beside_bare($rates; $limited; $limit):
  beside_bare($rates; "at least"; $limit)
  | if ($limited.service and $rates.ratio < $limit) or ($limited.bare and $rates.ratio >= $limit)
    then .result = "\($rates | rounds): not decided, the sender was the limit" else . end;

# The same with the bare loop in a process that has a second thread: what that alone costs.
def beside_threads($what; $compared):
  $compared.beside_threads
  | row($what; {service, bare: .bare_in_threads}; ""; rounds);

def picked($figures; $key): $figures | map_values(.[$key]);

# What is wanted of some figures of tarvik-bench-compare, all with the same limit.
def wanted_of($figures):
  [$figures[] as $figure | .wanted[] | select(.figure == $figure)] as $all
  | if $all == [] then {wanted: "", result: ""}
    else {wanted: ($all[0] | limit), result: ($all | all(.met) | met)} end;

def limit_of($figure): .wanted[] | select(.figure == $figure) | .limit;

def head_lines:
  .machine as $machine
  | "Measured on \($machine.date)\(if $machine.state == "" then "" else ", revision \($machine.state)" end): \($machine.cpu), \($machine.cores) cores, \($machine.kernel); \($machine.compiler).",
    (if $machine.quick then "", "A quick run: coarse figures, of a few rounds." else empty end),
    "",
    ([["rsyslogd", "rsyslogd"], ["syslog-ng", "syslog-ng"], ["busybox", "busybox syslogd"]][] as [$name, $title]
     | (.compare.absent[$name]) as $why
     | if $why then "\($title): \($why). \(if $why == "not installed" then "`scripts/bench --setup` fetches it." else "" end)"
       else "\($title): \($machine.versions[$name])." end);

def column_heads:
  "| Figure | service | bare loop | rsyslogd | syslog-ng | busybox syslogd | wanted of the service | |",
  "|---|--:|--:|--:|--:|--:|---|---|";

def cpu_rows:
  .intake.cpu_us_per_record.high as $high
  | .intake.cpu_us_per_record.paced as $thread
  | .compare as $c
  | $c.cpu_us_per_record as $cpu
  | (beside_bare($cpu.paced.whole; "at most"; $c | limit_of("cpu_us_per_record.paced.whole.ratio")) as $r
     | row("CPU of a stored record at 10,000/s, whole process, µs"; picked($cpu.paced.of; "cpu_us");
           $r.wanted; $r.result)),
    ([$c.wanted[] | select(.figure | startswith("cpu_us_per_record.paced.below"))] as $below
     | select($below != [])
     | row("the same"; {}; "below rsyslogd and syslog-ng"; $below | all(.met) | met)),
    (beside_bare($thread; "at most"; $thread.wanted_ratio) as $r
     | row("the same, the thread that stores alone, µs"; $thread; $r.wanted; $r.result)),
    (beside_bare($cpu.flood.whole; "at most"; $c | limit_of("cpu_us_per_record.flood.whole.ratio")) as $r
     | row("CPU of a stored record at full flood, whole process, µs"; picked($cpu.flood.of; "cpu_us");
           $r.wanted; $r.result)),
    row("sent at full flood, records/s"; picked($cpu.flood.of; "rate_sent")),
    row("lost of these, %"; picked($cpu.flood.of; "lost_percent")),
    (beside_bare($high; "at most"; $high.wanted_ratio) as $r
     | row("CPU of a stored record at \($high.rate | readable)/s, the thread that stores alone, µs"; $high;
           $r.wanted; $r.result),
       beside_threads("the same, with a bare loop that has a second thread, which sleeps"; $high));

# Rates that the sender might have exceeded are "at least". Who makes it wait has shown all it can.
def rates_of($of):
  $of | with_entries(.key as $name | .value |=
    (.sender_was_the_limit and $name != "busybox") as $limited | .rate | at_least($limited));

def rate_rows:
  .intake.highest_rate_without_loss as $highest
  | .compare as $c
  | $c.highest_rate_without_loss as $rates
  | (rate_beside_bare($rates.default_buffer;
                      $rates.default_buffer.of | map_values(.sender_was_the_limit);
                      $c | limit_of("highest_rate_without_loss.default_buffer.ratio")) as $r
     | row("Highest rate without loss, receive buffer \($rates.default_buffer.buffer), records/s";
           rates_of($rates.default_buffer.of); $r.wanted; $r.result)),
    (rate_beside_bare($highest; $highest.sender_was_the_limit; $highest.wanted_ratio) as $r
     | $highest.sender_was_the_limit as $limited
     | row("once more, by `tarvik-bench-intake`";
           {service: ($highest.service | at_least($limited.service)),
            bare: ($highest.bare | at_least($limited.bare))}; $r.wanted; $r.result)),
    beside_threads("the same, with a bare loop that has a second thread, which sleeps"; $highest),
    (if $rates.raised_buffer.not_measured
     then row("the same, receive buffer of `packaging/sysctl.conf`"; {}; "at least 100,000";
              "not measured: \($rates.raised_buffer.not_measured)")
     else ($c | wanted_of(["highest_rate_without_loss.raised_buffer"])) as $r
           | row("the same, receive buffer \($rates.raised_buffer.buffer), records/s";
                 rates_of($rates.raised_buffer.of); $r.wanted; $r.result)
     end);

def rest_rows:
  .service.detached.sigterm_to_exit_ms as $stop
  | .compare
  | wanted_of(["memory_kib.service_static"]) as $memory
  | wanted_of(["idle_cpu_percent.service", "idle_cpu_percent.service_static"]) as $idle
  | wanted_of(["start_to_open_ms.service", "start_to_open_ms.service_static"]) as $start
  | row("Memory at rest, resident, KiB"; picked(.memory_kib; "rss")),
    row("the same, static build of the service";
        {service: .memory_kib.service_static.rss}; $memory.wanted; $memory.result),
    row("Memory at rest, shared pages shared out, KiB"; picked(.memory_kib; "pss")),
    row("Idle, % of a processor"; picked(.idle; "cpu_percent"); $idle.wanted; $idle.result),
    row("Idle, wake-ups/s"; picked(.idle; "wake_ups_per_s")),
    row("Start to open port, ms"; .start_to_open_ms; $start.wanted; $start.result),
    row("the same, static build of the service"; {service: .start_to_open_ms.service_static}),
    row("SIGTERM to exit, longest, ms"; {service: $stop.max}; "below \($stop.wanted_below)"; $stop.met | met);

def relay_rows:
  .relay as $r
  | $r.latency_ms.at_1000_per_s as $latency
  | row("Console: record to line at 1,000/s, 99th percentile, ms"; {service: $latency.p99};
        "below \($latency.wanted_p99_below)"; $latency.met | met),
    row("Console: highest rate without loss, lines/s";
        {service: ($r.lines_per_s | .sender_was_the_limit as $limited
                   | .highest_without_loss | at_least($limited)), bare: $r.lines_per_s.bare}),
    row("Console: CPU of a line, console thread, µs";
        {service: $r.cpu_us_per_line.at_80_percent_of_highest.console, bare: $r.cpu_us_per_line.bare});

def upload_rows:
  .upload as $u
  | (["one", "five"][] as $count
     | $u.file_mb_per_s[$count] as $speed
     | beside_bare($speed; "at least"; $speed.wanted_ratio) as $r
     | row("Upload of files to \($count), MB/s"; $speed; $r.wanted; $r.result)),
    ([["receivers_read", "that read"], ["receivers_never_read", "that never read"]][] as [$which, $who]
     | $u.highest_record_rate_without_loss[$which] as $rate
     | $rate.sender_was_the_limit as $limited
     | row("Highest rate without loss with five receivers \($who), records/s";
           {service: ($rate.sessions | at_least($limited.sessions))};
           "at least \($rate.wanted_ratio) x without (\($rate.none | at_least($limited.none)))";
           "\($rate | rounds): \($rate.met | met)"));

# A table of growth with a bar for each row, as long as its cost.
def growth($title; $rows):
  ([$rows[].cpu_us] | max) as $most
  | "", "| \($title) | CPU of a record, µs | intake thread alone, µs | lost | |", "|---|--:|--:|--:|---|",
    ($rows[] | "| \(.with) | \(.cpu_us | readable) | \(.intake_cpu_us | readable) | \(.sent - .stored) | `\("#" * ([1, (.cpu_us / $most * 40 | round)] | max))` |");

def growth_tables:
  .compare.growth as $g
  | "", "How the cost of a record grows, at \($g.rate | readable) records/s:",
    growth("Log clients that send"; $g.log_clients),
    growth("Sessions that want every record"; $g.upload_sessions),
    "", "Of the records \($g.forwarded_share * 1000 | round / 10) % got to the receivers.",
    growth("Day's file"; $g.day_file);

head_lines, "", column_heads, cpu_rows, rate_rows, rest_rows, relay_rows, upload_rows,
"", "busybox syslogd is sent to through a local socket, the only input that it has: who sends waits while it is busy,",
"so nothing is lost, and no more is sent than it stores.",
growth_tables
