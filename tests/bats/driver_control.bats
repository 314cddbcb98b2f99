#!/usr/bin/env bats
# Driver control commands and INQUIRY data under the simulated driver:
# failed paths, the last path, adapters, controllers, `if` on INQUIRY data.

load driver_common

@test "a path failed outside the tool shows Dead; the last path stays online" {
    cat > test.in <<'IN'
command open 0 RW result rc >= 0
system $VPATHSIM fail-path 0 1
command get_device_state device 0 result rc == 0
command set_path device 0 path 0 state 2 result rc == 0
command set_path device 0 path 2 state 2 result rc == 0
command set_path device 0 path 3 state 2 result rc == 0
command get_device_state device 0 result rc == 0
command read records = 1 result rc == 512
command set_path device 0 path 0 state 1 result rc == 0
command set_adapter adapter 1 state 2 result rc == 0
command set_adapter adapter 0 state 2 result rc == 0
command get_adapter_info result rc == 0
command set_adapter adapter 1 state 1 result rc == 0
command set_controller device 0 ctlr 1 action 1 result rc == 0
command set_controller device -1 ctlr 0 action 3 result rc == 0
IN
    sim_batch
    [ "$status" -eq 0 ]
    body > body.out
    assert_file body.out <<OUT
hh:mm:ss Line     2 >>> system \$VPATHSIM fail-path 0 1  
system (\$VPATHSIM fail-path 0 1 ) 
command returned rc 0 
hh:mm:ss Line     3 >>> command get_device_state device 0 result rc == 0  
Completion Status: Success
Device:		vpath0 
Serial Number:	75022811000@@@@@@@@@@@@@@@@@@@@@@
Device Type:	2107900 

Path Selection Policy: Optimized
Path Count: 4 	Remaining Path: 3	Last path used: 0

Path 0: Adapter 0 (scsi0)	Path Name: sda
	State: Open		Mode: Normal
	Times used:      0	Recovered Errors: 0

Path 1: Adapter 1 (scsi1)	Path Name: sdb
	State: Dead		Mode: Normal
	Times used:      0	Recovered Errors: 0

Path 2: Adapter 0 (scsi0)	Path Name: sdc
	State: Open		Mode: Normal
	Times used:      0	Recovered Errors: 0

Path 3: Adapter 1 (scsi1)	Path Name: sdd
	State: Open		Mode: Normal
	Times used:      0	Recovered Errors: 0

$(outcome 0)
hh:mm:ss Line     4 >>> command set_path device 0 path 0 state 2 result rc == 0  
Completion Status: Success
Set Device 0 Path 0 to offline
$(outcome 0)
hh:mm:ss Line     5 >>> command set_path device 0 path 2 state 2 result rc == 0  
Completion Status: Success
Set Device 0 Path 2 to offline
$(outcome 0)
hh:mm:ss Line     6 >>> command set_path device 0 path 3 state 2 result rc == 0  
Completion Status: Last Path
Set Device 0 Path 3 to offline
$(outcome 0)
hh:mm:ss Line     7 >>> command get_device_state device 0 result rc == 0  
Completion Status: Success
Device:		vpath0 
Serial Number:	75022811000@@@@@@@@@@@@@@@@@@@@@@
Device Type:	2107900 

Path Selection Policy: Optimized
Path Count: 4 	Remaining Path: 1	Last path used: 0

Path 0: Adapter 0 (scsi0)	Path Name: sda
	State: Closed		Mode: Manual Offline
	Times used:      0	Recovered Errors: 0

Path 1: Adapter 1 (scsi1)	Path Name: sdb
	State: Dead		Mode: Normal
	Times used:      0	Recovered Errors: 0

Path 2: Adapter 0 (scsi0)	Path Name: sdc
	State: Closed		Mode: Manual Offline
	Times used:      0	Recovered Errors: 0

Path 3: Adapter 1 (scsi1)	Path Name: sdd
	State: Open		Mode: Normal
	Times used:      0	Recovered Errors: 0

$(outcome 0)
hh:mm:ss Line     8 >>> command read records = 1 result rc == 512  
read 512 bytes, sector = 0, data = 0, 00 00 00 00 00 00 00 00 ...
$(outcome 512)
hh:mm:ss Line     9 >>> command set_path device 0 path 0 state 1 result rc == 0  
Completion Status: Success
Set Device 0 Path 0 to online
$(outcome 0)
hh:mm:ss Line    10 >>> command set_adapter adapter 1 state 2 result rc == 0  
Completion Status: Success
Set Adapter 1 to offline
$(outcome 0)
hh:mm:ss Line    11 >>> command set_adapter adapter 0 state 2 result rc == 0  
Completion Status: Last Path
The last path, Adapter 0 remain online
$(outcome 0)
hh:mm:ss Line    12 >>> command get_adapter_info result rc == 0  
Completion Status: Success
Number of adapter entries: 2
Adapter 0: scsi0	State: Degraded	    Mode: Active
	Count:      0		Error Count: 0
	Attached Path: 4	Path still functioning: 3
Adapter 1: scsi1	State: Normal	    Mode: Manual Offline
	Count:      1		Error Count: 0
	Attached Path: 4	Path still functioning: 0
$(outcome 0)
hh:mm:ss Line    13 >>> command set_adapter adapter 1 state 1 result rc == 0  
Completion Status: Success
Set Adapter 1 to online
$(outcome 0)
hh:mm:ss Line    14 >>> command set_controller device 0 ctlr 1 action 1 result rc == 0  
Completion Status: 0 

                $(outcome 0)
hh:mm:ss Line    15 >>> command set_controller device -1 ctlr 0 action 3 result rc == 0  
Completion Status: 0 

                $(outcome 0)
hh:mm:ss Line    16 >>>  
OUT
}


@test "if statements branch on the INQUIRY data of the last get_inquiry" {
    # Device 0 answers as a different product than the built-in device.
    cat > topo.conf <<'CONF'
adapter fc0
adapter fc1
device serial=ACME0001 type=RR-9000 policy=7 size=1M vendor=ACME product=ROADRUNNER-XL-WXYZ revision=9.9 vendor_specific=BEEP devtype=5
path sdx adapter=0
path sdy adapter=1
device serial=NEWCO0002 size=1M
path sdz adapter=1
CONF
    cat > test.in <<'IN'
command open 0 RW result rc >= 0
if vendor_id == NEWCO type before: NEWCO
if vendor_id !has NEWCO type before: no vendor yet
command get_inquiry device 1 result rc == 0
if vendor_id == NEWCO type newco disk
if product_id has 2107 command get_dev_stats device 1 result rc == 0
if vendor_id == ACME type acme disk
command get_inquiry device 0 result rc == 0
if vendor_id == ACME type acme disk
if firmware_revision_level == 9.9 type revision 9.9
if product_id has WXYZ type product beyond twelve bytes
if vendor_specific has BEEP command get_device_state device 0 result rc == 0
command get_inquiry device 9 result rc == -1
command close result rc == 0
if vendor_id == ACME type still acme after a failed inquiry and close
IN
    sim_batch topo.conf
    [ "$status" -eq 0 ]
    body > body.out
    assert_file body.out <<OUT
hh:mm:ss Line     2 >>> if vendor_id == NEWCO type before: NEWCO  
hh:mm:ss Line     3 >>> if vendor_id !has NEWCO type before: no vendor yet  
hh:mm:ss Line     4 >>> command get_inquiry device 1 result rc == 0  
$(builtin_inquiry 1)
$(outcome 0)
hh:mm:ss Line     5 >>> if vendor_id == NEWCO type newco disk  
hh:mm:ss Line     6 >>> if product_id has 2107 command get_dev_stats device 1 result rc == 0  
$(untouched_dev_stats)

$(outcome 0)
hh:mm:ss Line     7 >>> if vendor_id == ACME type acme disk  
hh:mm:ss Line     8 >>> command get_inquiry device 0 result rc == 0  
INQUIRY data:
  devtype             5 
  flags       5
  additional_length  40 flags2   2 
  vendor id:               ACME    
  product id:              ROADRUNNER-XL-WX
  firmware revision level: 9.9 
  vendor specific: 
     42 45 45 50 20 20 20 20 20 20 20 20 20 20 20 20 20 20 20 20
     (BEEP                ) 
$(outcome 0)
hh:mm:ss Line     9 >>> if vendor_id == ACME type acme disk  
hh:mm:ss Line    10 >>> if firmware_revision_level == 9.9 type revision 9.9  
hh:mm:ss Line    11 >>> if product_id has WXYZ type product beyond twelve bytes  
hh:mm:ss Line    12 >>> if vendor_specific has BEEP command get_device_state device 0 result rc == 0  
Completion Status: Success
Device:		vpath0 
Serial Number:	ACME0001@@@@@@@@@@@@@@@@@@@@@@@@@
Device Type:	RR-9000 

Path Selection Policy: Reserve Policy
Path Count: 2 	Remaining Path: 2	Last path used: 0

Path 0: Adapter 0 (fc0)	Path Name: sdx
	State: Open		Mode: Normal
	Times used:      0	Recovered Errors: 0

Path 1: Adapter 1 (fc1)	Path Name: sdy
	State: Open		Mode: Normal
	Times used:      0	Recovered Errors: 0

$(outcome 0)
hh:mm:ss Line    13 >>> command get_inquiry device 9 result rc == -1  
tarnwick error getting logical inquiry
$(refused 19)
hh:mm:ss Line    14 >>> command close result rc == 0  
$(outcome 0)
hh:mm:ss Line    15 >>> if vendor_id == ACME type still acme after a failed inquiry and close  
hh:mm:ss Line    16 >>>  
OUT
    # Only the guarded type statements whose test held print, on stdout.
    [ "$(grep -v -e '^Usage: $' -e '^  tarnwick ' -e '^ $' <<<"$output")" = \
" before: no vendor yet 
 newco disk 
 acme disk 
 revision 9.9 
 still acme after a failed inquiry and close " ]
}

@test "-t brackets the INQUIRY report with its trace lines" {
    printf 'command open 0 RW result rc >= 0\ncommand get_inquiry device 0 result rc == 0\n' > test.in
    sim_batch "" -t
    [ "$status" -eq 0 ]
    sed -n '/^TTRACE: fprintf_inquiry_data entered.$/,/^TTRACE: fprintf_inquiry_data exit.$/p' masked.out > report.out
    assert_file report.out <<OUT
TTRACE: fprintf_inquiry_data entered.
$(builtin_inquiry 0)
TTRACE: fprintf_inquiry_data exit.
OUT
}
