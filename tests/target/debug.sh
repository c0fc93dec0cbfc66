load fuse loop veth dummy tun >/dev/null
cat >/qz/d.sh <<'D'
timeout -s KILL ${QZ_t:-60} "$BUILD/bin/$QZ_programs" "--gtest_filter=$QZ_filter" </dev/null >/tmp/out 2>&1
rc=$?
[ $rc = 0 ] && exit 0
echo ==== rc $rc; tail -n 40 /tmp/out
grep -v "create .*on server" /tmp/mbusd.log;  tail -n 55 /tmp/mbusd.out
cat /proc/sysvipc/shm
exit 1
D
export QZ_t QZ_programs QZ_filter BUILD
i=0
while [ $i -lt ${QZ_n:-10} ]; do i=$((i+1))
"$BUILD/bin/qzbox" --bind "$SOURCE" --bind "$BUILD" -- sh /qz/d.sh || { echo "bad at $i"; return 1; }
echo "ok $i $(cut -d ' ' -f 1 /proc/uptime)"
done
