# Makes the hyphens of a generated page the keyboard's, at which no line ends, and has no word divided: the macros of manual
# pages would switch that on again with every paragraph.
/^\.TH /a\
.nh\
.de hy\
..
/^[.']/!s/-\([-[:alpha:]]\)/\\-\1/g
/^[.']/!s/\\-\(-\)/\\-\\-/g
