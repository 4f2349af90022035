# A trefoil knot of 57,600 triangles, as OBJ.
BEGIN {
    around = 600; across = 48; turn = 6.283185307
    for (i = 0; i < around; ++i) {
        t = turn * i / around
        x = sin(t) + 2 * sin(2 * t); y = cos(t) - 2 * cos(2 * t); z = -sin(3 * t)
        # The direction along the knot, and two across it.
        ax = cos(t) + 4 * cos(2 * t); ay = -sin(t) + 4 * sin(2 * t); az = -3 * cos(3 * t)
        a = sqrt(ax * ax + ay * ay + az * az); ax /= a; ay /= a; az /= a
        bx = ay; by = -ax; b = sqrt(bx * bx + by * by); bx /= b; by /= b
        cx = -az * by; cy = az * bx; cz = ax * by - ay * bx
        for (j = 0; j < across; ++j) {
            c = 0.6 * cos(turn * j / across); s = 0.6 * sin(turn * j / across)
            printf "v %.5f %.5f %.5f\n", x + c * bx + s * cx, y + c * by + s * cy, z + s * cz
        }
    }
    for (i = 0; i < around; ++i)
        for (j = 0; j < across; ++j) {
            p = i * across + j + 1; q = i * across + (j + 1) % across + 1
            r = (i + 1) % around * across + (j + 1) % across + 1; o = (i + 1) % around * across + j + 1
            printf "f %d %d %d\nf %d %d %d\n", p, q, o, q, r, o
        }
}
