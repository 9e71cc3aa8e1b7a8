# Draws a krtracker-sim CSV (columns chosen by their header names) into a PNG.
#   gnuplot -e "csv='out/ball.csv'; png='out/ball.png'; subtitle='Kibo, seed 1'; \
#               yawmin=-119; yawmax=119; pitchmin=-38; pitchmax=29" tools/plot.gp
# Panels: line-of-sight error against the on-target threshold (phases shaded and named, the
# target unseen and the tracker's losses marked, its events written at their time); the
# target's bearing and the head's yaw in the torso frame; the head joints against their
# limits. The title says what "on target" means; every line and mark is in a legend.

if (!exists("csv") || !exists("png")) { print "plot.gp needs csv and png"; exit status 2 }
if (!exists("subtitle")) subtitle = ""
if (!exists("yawmin")) { yawmin = -120; yawmax = 120; pitchmin = -40; pitchmax = 30 }

set datafile separator comma
set datafile columnheaders
set datafile missing ""
deg = 180.0 / pi
t(dummy) = column("time")
inphase(dummy) = column("phase_index") >= 0
# True on the first sample of each phase (the previous sample's phase is remembered).
previous = -2
phasestart(dummy) = (before = previous, previous = column("phase_index"), \
                     previous >= 0 && previous != before)

stats csv using (column("time")) nooutput
set xrange [0:STATS_max]
# Long runs draw every stride-th sample (at most about 20,000 per line; events are all kept),
# so that a 10-hour CSV plots in bounded memory.
stride = STATS_records > 20000 ? int(STATS_records / 20000) : 1

set terminal pngcairo size 1400,1000 font "sans,10"
set output png
set multiplot layout 3,1 title "krtracker-sim: how closely the head camera followed its target\n{/*0.9 ".subtitle."}\n{/*0.85 On target: the target seen and the line-of-sight error (angle between the camera's axis and the direction to the target) under the phase's threshold.}"
set grid
set key outside right top box opaque
set lmargin 12
set rmargin 34
set style fill transparent solid 0.12 noborder
set boxwidth 0.01 absolute

# 1. Line of sight, camera frame.
set ylabel "line-of-sight error, camera frame [deg]"
set logscale y
set yrange [0.05:300]
plot csv every stride using (t(0)):(inphase(0) ? 300 : 1/0):(column("phase_index") + 1) \
       with boxes lc variable notitle, \
     1/0 with boxes fs transparent solid 0.35 noborder lc rgb "#9467bd" title "phase (shaded)", \
     '' using (t(0)):(phasestart(0) ? 210 : 1/0):(" ".stringcolumn("phase")) \
       with labels left font ",9" notitle, \
     '' every stride using (t(0)):(inphase(0) ? column("line_of_sight_deg") : 1/0) \
       with lines lw 1.5 lc rgb "#1f77b4" title "line-of-sight error", \
     '' every stride using (t(0)):(inphase(0) ? column("on_target_deg") : 1/0) \
       with steps lw 1.5 dt 2 lc rgb "#2ca02c" title "on-target threshold", \
     '' every stride using (t(0)):(inphase(0) && column("perceived") == 0 ? 150 : 1/0) \
       with points pt 7 ps 0.25 lc rgb "#7f7f7f" title "target not perceived (grey)", \
     '' every stride using (t(0)):(inphase(0) && column("tracked") == 0 ? 90 : 1/0) \
       with points pt 7 ps 0.25 lc rgb "#d62728" title "tracker not tracking (red)", \
     '' using (t(0)):(strlen(stringcolumn("events")) > 0 ? 0.07 : 1/0):(stringcolumn("events")) \
       with labels rotate by 90 left font ",7" point pt 2 ps 0.6 lc rgb "#9467bd" \
       title "tracker events"
unset logscale y
set yrange [*:*]

# 2. Target and head, torso frame.
set ylabel "yaw, torso frame [deg]"
plot csv every stride using (t(0)):(column("bearing_yaw") * deg) with lines lw 2 lc rgb "#ff7f0e" \
       title "target bearing", \
     '' every stride using (t(0)):(column("head_yaw") * deg) with lines lw 1.2 lc rgb "#1f77b4" \
       title "head yaw", \
     '' every stride using (t(0)):(column("robot_theta") * deg) with lines lw 1 dt 2 lc rgb "#8c564b" \
       title "robot heading, map"  # a longer title overflows the right margin

# 3. Head joints, joint space, against their limits.
set xlabel "time [s]"
set ylabel "head joints [deg]"
set arrow 1 from graph 0, first yawmax to graph 1, first yawmax nohead dt 3 lc rgb "#1f77b4"
set arrow 2 from graph 0, first yawmin to graph 1, first yawmin nohead dt 3 lc rgb "#1f77b4"
set arrow 3 from graph 0, first pitchmax to graph 1, first pitchmax nohead dt 3 lc rgb "#2ca02c"
set arrow 4 from graph 0, first pitchmin to graph 1, first pitchmin nohead dt 3 lc rgb "#2ca02c"
set yrange [(yawmin < pitchmin ? yawmin : pitchmin) - 10:(yawmax > pitchmax ? yawmax : pitchmax) + 10]
plot csv every stride using (t(0)):(column("head_yaw") * deg) with lines lw 1.2 lc rgb "#1f77b4" \
       title "yaw measured", \
     '' every stride using (t(0)):(column("head_pitch") * deg) with lines lw 1.2 lc rgb "#2ca02c" \
       title "pitch measured", \
     '' every stride using (t(0)):(column("bearing_pitch") * deg) with lines lw 1 dt 2 lc rgb "#ff7f0e" \
       title "target pitch bearing", \
     1/0 with lines dt 3 lc rgb "#7f7f7f" title "joint limits"
unset multiplot
