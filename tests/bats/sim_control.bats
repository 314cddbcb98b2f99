#!/usr/bin/env bats
# The simulated driver's control program: state, fault injection, `run`.

load helpers

setup() {
    setup_workdir
    export VPATHSIM_STATE=$WORK/state
}
teardown() { teardown_workdir; }

@test "show lists the default topology, faults change it, restore clears them" {
    run "$VPATHSIM" show
    [ "$status" -eq 0 ]
    [ "${lines[1]}" = "adapter 0 scsi0    online  io 0 errors 0" ]
    [ "${lines[3]}" = "vpath0 serial 75022811000 size 67108864 policy 4 remaining 4 last 0" ]
    [ "${lines[5]}" = "  path 1 sdb    adapter 1 online  used 0" ]
    [ "${#lines[@]}" -eq 13 ]

    "$VPATHSIM" fail-path 1 2
    "$VPATHSIM" fail-adapter 0
    "$VPATHSIM" inject-eio 0 2048
    run "$VPATHSIM" show
    [ "${lines[1]}" = "adapter 0 scsi0    online FAILED  io 0 errors 0" ]
    [ "${lines[8]}" = "vpath1 serial 75022811001 size 67108864 policy 4 remaining 2 last 0" ]
    [ "${lines[11]}" = "  path 2 sdg    adapter 0 online FAILED  used 0" ]
    [ "${lines[13]}" = "eio vpath0 sector 2048" ]

    "$VPATHSIM" restore
    run "$VPATHSIM" show
    [[ "$output" != *FAILED* && "$output" != *eio* ]]
}

@test "faults outside the topology and malformed commands are refused" {
    run "$VPATHSIM" fail-path 0 4
    [ "$status" -eq 1 ]
    [ "$output" = "vpathsim: no path 4 on vpath0" ]
    run "$VPATHSIM" fail-adapter 2
    [ "$status" -eq 1 ]
    run "$VPATHSIM" inject-eio 1 131072
    [ "$status" -eq 1 ]
    for args in "" "fail-path 0" "fail-path x 1" "inject-eio 0 -1" "frobnicate" "run" "run --"; do
        run "$VPATHSIM" $args
        [ "$status" -eq 2 ]
        [[ "${lines[0]}" == "usage: vpathsim"* ]]
    done
}

@test "init reads a topology file and rejects a broken one" {
    cat > topo.conf <<'CONF'
# one device behind three adapters
adapter fc0
adapter fc1
adapter fc2
device serial=ABC123 type=DS8K policy=3 size=1M vendor=ACME product=ROADRUNNER revision=9.9 devtype=0
path sdx adapter=2
path sdy adapter=0   # trailing comment
CONF
    run "$VPATHSIM" init --config topo.conf
    [ "$status" -eq 0 ]
    run "$VPATHSIM" show
    [ "${lines[4]}" = "vpath0 serial ABC123 size 1048576 policy 3 remaining 2 last 0" ]
    [ "${lines[5]}" = "  path 0 sdx    adapter 2 online  used 0" ]
    [ "$(stat -c %s state/vpath0.img)" -eq 1048576 ]

    printf 'device size=1000\npath sda adapter=0\n' > bad.conf
    run "$VPATHSIM" init --config bad.conf
    [ "$status" -eq 1 ]
    [ "$output" = "vpathsim: bad.conf: line 1: bad size (a multiple of 512, K/M/G allowed)" ]
    printf 'adapter a\ndevice\n' > bad.conf
    run "$VPATHSIM" init --config bad.conf
    [ "$output" = "vpathsim: bad.conf: device 0 has no path" ]
}

@test "run passes the exit status and the environment, and drops its temporary state" {
    unset VPATHSIM_STATE
    run "$VPATHSIM" run -- sh -c 'echo "$VPATHSIM_STATE"; "$VPATHSIM" fail-path 0 0; exit 7'
    [ "$status" -eq 7 ]
    [[ "${lines[0]}" == /tmp/vpathsim-run.* ]]
    [ ! -e "${lines[0]}" ]
    run -127 "$VPATHSIM" run -- /nonexistent/program
}

@test "run --state keeps driver state between runs; --fresh starts over" {
    "$VPATHSIM" run --state "$WORK/s" -- "$VPATHSIM" fail-path 1 3
    run "$VPATHSIM" run --state "$WORK/s" -- "$VPATHSIM" show
    [[ "$output" == *"path 3 sdh    adapter 1 online FAILED"* ]]
    run "$VPATHSIM" run --state "$WORK/s" --fresh -- "$VPATHSIM" show
    [[ "$output" != *FAILED* ]]
}

@test "the tool runs under the simulator, and its shell children are unharmed" {
    printf 'type under the simulator\nsystem echo from a child > child.txt\n' > in.tw
    run "$VPATHSIM" run -- "$TARNWICK" -f in.tw -o out.tw
    [ "$status" -eq 0 ]
    [ -f trace.out ]
}
