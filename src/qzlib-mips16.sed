# Every function in 16-bit instructions that needs the global pointer works it out from the program
# counter and a distance of 32 bits, in 14 bytes at its start. In an object as small as this one 16 bits
# will do, in 4 bytes: qzlib-mips16.ld puts the pointer where they do, and fails where they would not.
/^\tli\t\$2,%hi(_gp_disp)$/{
    N
    N
    N
    s/^.*\n\taddiu\t\$3,\$pc,%lo(_gp_disp)\n\tsll\t\$2,16\n\taddu\t\$2,\$3$/\taddiu\t$2,$pc,%lo(_gp_disp)/
}
