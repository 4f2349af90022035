# What ground under sand reflects, out of the sand's depth as an ASCII grid: rock where there is none, and sand from a depth
# of 6 units on. Writes sand_red.asc, sand_green.asc and sand_blue.asc to `folder`.
BEGIN {
    colour["red"]; colour["green"]; colour["blue"]
    rock["red"] = 0.27; rock["green"] = 0.22; rock["blue"] = 0.18
    sand["red"] = 0.64; sand["green"] = 0.48; sand["blue"] = 0.31
}
NF <= 2 {
    for (c in colour) print >folder "/sand_" c ".asc"
    next
}
{
    for (c in colour) {
        row = ""
        for (i = 1; i <= NF; ++i) row = row " " rock[c] + (sand[c] - rock[c]) * ($i > 6 ? 1 : $i / 6)
        print row >folder "/sand_" c ".asc"
    }
}
