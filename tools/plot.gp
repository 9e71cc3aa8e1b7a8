# Draws a krtracker-sim CSV (columns chosen by their header names) into a PNG.
#   gnuplot -e "csv='out/ball.csv'; png='out/ball.png'; subtitle='Kibo, seed 1'; \
#               yawmin=-119; yawmax=119; pitchmin=-38; pitchmax=29" tools/plot.gp
# Panels: line-of-sight error (drawn only while the target is visible) and the arms' pointing
# errors against the on-target threshold, phases shaded and named, the target hidden or out of
# view and the tracker's losses marked, its events written at their time on staggered heights,
# each phase's main figures beside (figures='...'); the target's bearing and the head's yaw in
# the torso frame; the head joints, commanded and measured (yawjoint, pitchjoint name them),
# against their limits.

if (!exists("csv") || !exists("png")) { print "plot.gp needs csv and png"; exit status 2 }
if (!exists("subtitle")) subtitle = ""
if (!exists("yawmin")) { yawmin = -120; yawmax = 120; pitchmin = -40; pitchmax = 30 }
if (!exists("figures")) figures = ""
if (!exists("yawjoint")) { yawjoint = ""; pitchjoint = "" }

set datafile separator comma
set datafile columnheaders
set datafile missing ""
deg = 180.0 / pi
t(dummy) = column("time")
inphase(dummy) = column("phase_index") >= 0
visible(dummy) = inphase(0) && column("perceived") == 1
# The first sample of each phase, for its name; each event label one height up from the last.
lastphase = -1
newphase(dummy) = (p = column("phase_index"), fresh = p >= 0 && p != lastphase, lastphase = p, fresh)
eventrow = 0
eventy(dummy) = (eventrow = (eventrow + 1) % 4, 0.07 * 2.2**eventrow)
armdeg(name) = inphase(0) && column(name) >= 0 ? column(name) : 1/0

stats csv using (column("time")) nooutput
set xrange [0:STATS_max]
# Long runs draw every stride-th sample (at most about 20,000 per line; events are all kept),
# so that a 10-hour CSV plots in bounded memory.
stride = STATS_records > 20000 ? int(STATS_records / 20000) : 1

set terminal pngcairo size 1400,1000 font "sans,10"
set output png
set multiplot layout 3,1 title "krtracker-sim: how closely the head camera followed its target\n{/*0.9 ".subtitle."}\n{/*0.85 On target: the target seen and the line-of-sight error (angle between the camera's axis and the direction to the target) under the phase's threshold.}"
if (strlen(figures) > 0) {
  set label 20 figures at screen 0.835, screen 0.555 left font ",7"
}
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
     '' every stride using (t(0)):(visible(0) ? column("line_of_sight_deg") : 1/0) \
       with lines lw 1.5 lc rgb "#1f77b4" title "line-of-sight error", \
     '' every stride using (t(0)):(armdeg("larm_deg")) \
       with lines lw 1 lc rgb "#17becf" title "left arm pointing error", \
     '' every stride using (t(0)):(armdeg("rarm_deg")) \
       with lines lw 1 lc rgb "#bcbd22" title "right arm pointing error", \
     '' every stride using (t(0)):(inphase(0) ? column("on_target_deg") : 1/0) \
       with steps lw 1.5 dt 2 lc rgb "#2ca02c" title "on-target threshold", \
     '' every stride using (t(0)):(inphase(0) && column("in_view") == 0 ? 150 : 1/0) \
       with points pt 7 ps 0.25 lc rgb "#7f7f7f" title "target out of view", \
     '' every stride using (t(0)):(inphase(0) && column("in_view") == 1 && column("perceived") == 0 \
       ? 150 : 1/0) with points pt 7 ps 0.25 lc rgb "#000000" title "target hidden", \
     '' every stride using (t(0)):(inphase(0) && column("tracked") == 0 ? 90 : 1/0) \
       with points pt 7 ps 0.25 lc rgb "#d62728" title "tracker not tracking", \
     '' using (t(0)):(strlen(stringcolumn("events")) > 0 ? eventy(0) : 1/0):(stringcolumn("events")) \
       with labels left offset 0.5,0 font ",7" point pt 2 ps 0.6 lc rgb "#9467bd" \
       title "tracker events", \
     '' using (t(0)):(newphase(0) ? 200 : 1/0):(stringcolumn("phase")) \
       with labels left offset 0.3,0 font ",8" tc rgb "#444444" notitle
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
cmd(joint) = strlen(joint) > 0 ? column("cmd_".joint) * deg : 1/0
plot csv every stride using (t(0)):(column("head_yaw") * deg) with lines lw 1.2 lc rgb "#1f77b4" \
       title "yaw measured", \
     '' every stride using (t(0)):(cmd(yawjoint)) with lines lw 1 dt 2 lc rgb "#1f77b4" \
       title "yaw commanded", \
     '' every stride using (t(0)):(column("head_pitch") * deg) with lines lw 1.2 lc rgb "#2ca02c" \
       title "pitch measured", \
     '' every stride using (t(0)):(cmd(pitchjoint)) with lines lw 1 dt 2 lc rgb "#2ca02c" \
       title "pitch commanded", \
     '' every stride using (t(0)):(column("bearing_pitch") * deg) with lines lw 1 dt 2 lc rgb "#ff7f0e" \
       title "target pitch bearing", \
     1/0 with lines dt 3 lc rgb "#7f7f7f" title "joint limits"
unset multiplot
