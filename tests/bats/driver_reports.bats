#!/usr/bin/env bats
# Driver query commands under the simulated driver: reports, failure
# messages, statement errors and the one-shot address override.

load driver_common

@test "device count, device state and adapter list of the built-in topology" {
    cat > test.in <<'IN'
command open 0 RW result rc >= 0
command get_number_devices trailing tokens result rc == 0
command get_device_state devices 1 result rc == 0
command get_adapter_info result rc == 0
IN
    sim_batch
    [ "$status" -eq 0 ]
    body > body.out
    assert_file body.out <<OUT
hh:mm:ss Line     2 >>> command get_number_devices trailing tokens result rc == 0  
Completion Status: Success
Number of Devices: 2
$(outcome 0)
hh:mm:ss Line     3 >>> command get_device_state devices 1 result rc == 0  
Completion Status: Success
Device:		vpath1 
Serial Number:	75022811001@@@@@@@@@@@@@@@@@@@@@@
Device Type:	2107900 

Path Selection Policy: Optimized
Path Count: 4 	Remaining Path: 4	Last path used: 0

Path 0: Adapter 0 (scsi0)	Path Name: sde
	State: Open		Mode: Normal
	Times used:      0	Recovered Errors: 0

Path 1: Adapter 1 (scsi1)	Path Name: sdf
	State: Open		Mode: Normal
	Times used:      0	Recovered Errors: 0

Path 2: Adapter 0 (scsi0)	Path Name: sdg
	State: Open		Mode: Normal
	Times used:      0	Recovered Errors: 0

Path 3: Adapter 1 (scsi1)	Path Name: sdh
	State: Open		Mode: Normal
	Times used:      0	Recovered Errors: 0

$(outcome 0)
hh:mm:ss Line     4 >>> command get_adapter_info result rc == 0  
Completion Status: Success
Number of adapter entries: 2
Adapter 0: scsi0	State: Normal	    Mode: Active
	Count:      0		Error Count: 0
	Attached Path: 4	Path still functioning: 4
Adapter 1: scsi1	State: Normal	    Mode: Active
	Count:      0		Error Count: 0
	Attached Path: 4	Path still functioning: 4
$(outcome 0)
hh:mm:ss Line     5 >>>  
OUT
}

@test "statistics move after real reads and writes" {
    cat > test.in <<'IN'
command open 1 RW result rc >= 0
command get_dev_stats device 1 result rc == 0
set block_count = 8
command read records = 3 result rc == 4096
set block_count = 129
command write records = 1 result rc == 66048
set block_count = 1
command write records = 2 result rc == 512
command get_dev_stats device 1 result rc == 0
command get_adapter_stats adapter 0 result rc == 0
command get_adapter_stats adapter 1 result rc == 0
IN
    sim_batch
    [ "$status" -eq 0 ]
    body | sed '/ Line    10 >>> /,$d' > body.out
    assert_file body.out <<OUT
hh:mm:ss Line     2 >>> command get_dev_stats device 1 result rc == 0  
$(untouched_dev_stats)

$(outcome 0)
hh:mm:ss Line     3 >>> set block_count = 8  
hh:mm:ss Line     4 >>> command read records = 3 result rc == 4096  
read 4096 bytes, sector = 0, data = 0, 00 00 00 00 00 00 00 00 ...
 ... 
read 4096 bytes, sector = 2, data = 0, 00 00 00 00 00 00 00 00 ...
$(outcome 4096)
hh:mm:ss Line     5 >>> set block_count = 129  
hh:mm:ss Line     6 >>> command write records = 1 result rc == 66048  
wrote 66048 bytes, sector = 3, data = 3, 03 00 00 00 3a d1 d8 28 ...
$(outcome 66048)
hh:mm:ss Line     7 >>> set block_count = 1  
hh:mm:ss Line     8 >>> command write records = 2 result rc == 512  
wrote 512 bytes, sector = 4, data = 4, 04 00 00 00 dd 33 42 1e ...
 ... 
wrote 512 bytes, sector = 5, data = 5, 05 00 00 00 1b dd 6a 08 ...
$(outcome 512)
hh:mm:ss Line     9 >>> command get_dev_stats device 1 result rc == 0  
Completion Status: Success

                Total Read  Total Write  Active Read  Active Write   Maximum
I/O:                     3            3            0             0         1
SECTOR:                 24          131            0             0       129

Transfer Size:      <= 512        <= 4k       <= 16K        <= 64K     > 64K
                         2            3            0             0         1

$(outcome 0)
OUT
    # How transfers spread over the adapters is the driver's choice; together
    # they carry every transfer of the device.
    sed -n '/ Line    10 >>> /,$p' masked.out | awk '
        /^I\/O:/ { reads += $2; writes += $3 }
        /^SECTOR:/ { sectors += $2 + $3 }
        END { exit !(reads == 3 && writes == 3 && sectors == 155) }'
}

@test "failed requests show the completion status the driver left" {
    cat > test.in <<'IN'
command open 0 RW result rc >= 0
command get_device_state device 9 result rc == -1
command set_path device 0 path 9 state 2 result rc == -1
command set_path device 0 path 1 state 3 result rc == -1
command set_adapter adapter 5 state 2 result rc == -1
command set_adapter adapter 0 state 0 result rc == -1
command set_controller device 0 ctlr 5 action 1 result rc == -1
command get_dev_stats device 9 result rc == -1
command get_adapter_stats adapter 9 result rc == -1
command get_inquiry device 9 result rc == -1
set buffer = 4096
command get_number_devices result rc == -1
set buffer = 4096
command get_adapter_info result rc == -1
IN
    sim_batch
    [ "$status" -eq 0 ]
    body > body.out
    assert_file body.out <<OUT
hh:mm:ss Line     2 >>> command get_device_state device 9 result rc == -1  
tarnwick error getting device state: Device Not Found
$(refused 19)
hh:mm:ss Line     3 >>> command set_path device 0 path 9 state 2 result rc == -1  
Error setting path state: Invalid Parameter
$(refused 22)
hh:mm:ss Line     4 >>> command set_path device 0 path 1 state 3 result rc == -1  
Error setting path state: Invalid Parameter
$(refused 22)
hh:mm:ss Line     5 >>> command set_adapter adapter 5 state 2 result rc == -1  
Error setting adapter state: Invalid Adapter
$(refused 22)
hh:mm:ss Line     6 >>> command set_adapter adapter 0 state 0 result rc == -1  
Error setting adapter state: Invalid Parameter
$(refused 22)
hh:mm:ss Line     7 >>> command set_controller device 0 ctlr 5 action 1 result rc == -1  
tarnwick error set controller 
$(refused 22)
hh:mm:ss Line     8 >>> command get_dev_stats device 9 result rc == -1  
tarnwick error getting device statistics: Device Not Found
$(refused 19)
hh:mm:ss Line     9 >>> command get_adapter_stats adapter 9 result rc == -1  
tarnwick error getting adapter statistics: Invalid Adapter
$(refused 22)
hh:mm:ss Line    10 >>> command get_inquiry device 9 result rc == -1  
tarnwick error getting logical inquiry
$(refused 19)
hh:mm:ss Line    11 >>> set buffer = 4096  
hh:mm:ss Line    12 >>> command get_number_devices result rc == -1  
Error getting number of devices: Success
$(refused 14)
hh:mm:ss Line    13 >>> set buffer = 4096  
hh:mm:ss Line    14 >>> command get_adapter_info result rc == -1  
Error getting addapter info: Success
$(refused 14)
hh:mm:ss Line    15 >>>  
OUT
}

@test "get_inquiry leaves an armed address for the next request" {
    cat > test.in <<'IN'
command open 0 RW result rc >= 0
set buffer = 4096
command get_inquiry device 1 result rc == 0
command get_dev_stats device 1 result rc == -1
command get_dev_stats device 1 result rc == 0
IN
    sim_batch
    [ "$status" -eq 0 ]
    body > body.out
    assert_file body.out <<OUT
hh:mm:ss Line     2 >>> set buffer = 4096  
hh:mm:ss Line     3 >>> command get_inquiry device 1 result rc == 0  
$(builtin_inquiry 1)
$(outcome 0)
hh:mm:ss Line     4 >>> command get_dev_stats device 1 result rc == -1  
tarnwick error getting device statistics: Success
$(refused 14)
hh:mm:ss Line     5 >>> command get_dev_stats device 1 result rc == 0  
$(untouched_dev_stats)

$(outcome 0)
hh:mm:ss Line     6 >>>  
OUT
}

# Each wrong keyword gets its own message with the statement from that
# token on; the request is still sent and the run stops after the line.
@test "a wrong or missing keyword is a syntax error; the request still goes out" {
    check() {
        printf 'command open 0 RW result rc >= 0\ncommand %s result rc == 0\ncommand close\n' "$1" > test.in
        sim_batch
        [ "$(grep -c '^batch file syntax error, line 2 $' <<<"$output")" -eq "$2" ]
        [ "$(sed -n '/ Line     2 >>> /{n;p;}' masked.out)" = "$3" ]
        [ -z "$(grep ' Line     3 >>> ' masked.out)" ]
    }
    check "get_device_state dev 0" 1 \
        "get device state, invalid statement at (dev 0 result rc == 0 ) Completion Status: Success"
    check "get_device_state" 1 "get device state, invalid statement at () Completion Status: Success"
    check "set_path dev 0 pth 1 st 2" 3 \
        "set path, invalid statement at (dev 0 pth 1 st 2 result rc == 0 ) set path, invalid statement at (pth 1 st 2 result rc == 0 ) set path, invalid statement at (st 2 result rc == 0 ) Error setting path state: Invalid Parameter"
    check "set_path device 0 path 1" 1 "set path, invalid statement at () Error setting path state: Invalid Parameter"
    check "set_adapter adaptor 0 state 1" 1 \
        "set adapter, invalid statement at (adaptor 0 state 1 result rc == 0 ) Completion Status: Success"
    check "set_controller device 0 controller 1 action 1" 1 \
        "set controller, invalid statement at (controller 1 action 1 result rc == 0 ) Completion Status: 0 "
    check "get_dev_stats adapter 0" 1 \
        "get device statistics, invalid statement at (adapter 0 result rc == 0 ) Completion Status: Success"
    check "get_adapter_stats device 0" 1 \
        "get adapter statistics, invalid statement at (device 0 result rc == 0 ) Completion Status: Success"
    check "get_inquiry dev 0" 1 "get device state, invalid statement at (dev 0 result rc == 0 ) INQUIRY data:"
}
