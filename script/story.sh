# The story of script/demo: two workstations take turns with one device. Sourced by it; what the words below
# do stands there. Whatever is expected here is checked, and the first thing that is otherwise ends the demo.

owned_by() { # WORKSTATION: how a call is answered that changes another owner's device
    expect Status/code=42020 Status/msg=9012 \
        Status/params/0/DeviceOwner="${name[$1]}" Status/params/0/AllocatedBy="${address[$1]}:*"
}

allocate() { # WORKSTATION
    call "$1" rdxAllocateDevice "$(text DeviceOwner "${name[$1]}")" \
        "$(text IfhClientIpAddr "${address[$1]}")" "$(text IfhClientTcpPorts '3000,3001')"
}

chapter 'Whoever asks is told'

user='' call one rdxGetVersion "$(number version 1)"
expect status/code=0 version=100
means 'The server speaks version 100 of the protocol. Neither this call nor the next wants a user.'

user='' call two rdxGetDeviceStatus
expect Status/code=0 SelftestStatus/code=0 IsAllocated=0 DeviceOwner='' IpAddress='*.*.*.*'
firmware=$(value FirmwareRev)
address_before=$(value IpAddress)
means "The device is free, its self test found no fault, its firmware is revision $firmware."

chapter 'One owner at a time'

http=401 user=demo:wrong allocate two
means 'A wrong password: the server refuses before it looks at the arguments.'

allocate one
succeeds
means 'Workstation 1 has the device.'

allocate two
expect Status/code=42030 Status/msg=9001 \
    Status/params/0/DeviceOwner="${name[one]}" Status/params/0/AllocatedBy="${address[one]}:*"
means "Refused: the device is allocated, and the answer names its owner and where that one called from."

call two rdxSetDeviceAttributes "$(text DeviceOwner "${name[two]}")" \
    "$(list SlpAttributes "$(attribute Location 'Bay 2' true)")"
owned_by one
means 'Refused as well: Workstation 2 has the right password, but not the device.'

chapter 'What the owner does'

call one rdxSetDeviceAttributes "$(text DeviceOwner "${name[one]}")" \
    "$(list SlpAttributes "$(attribute Location 'Bay 7' true)" "$(attribute Note 'at the lift' false)")"
succeeds
means 'Two attributes are set: one to be kept, one until the device starts again.'

user='' call one rdxGetDeviceStatus
expect Status/code=0 IsAllocated=1 DeviceOwner="${name[one]}" \
    IfUsage/0/Connection=controlled IfUsage/0/ControlledBy="${address[one]}"
expect_attribute Location 'Bay 7' true
expect_attribute Note 'at the lift' false
means 'The status shows the owner, who uses the interface, and both attributes.'

call one rdxRunDeviceSelfTest "$(text DeviceOwner "${name[one]}")" "$(text TestMode SelftestShort)" \
    "$(boolean AwaitResults false)"
succeeds
expect SelftestStatus/code=42500 SelftestStatus/msg=0
means 'The short self test runs, and the call does not wait for its end.'

while_status one SelftestStatus/code 42500
expect Status/code=0 SelftestStatus/code=0 SelftestStatus/msg=0
means 'The self test has ended without a fault.'

call one rdxGetVehicleStatus "$(text DeviceOwner "${name[one]}")"
succeeds
expect_between Voltage/Terminal_15 12100 12500
expect_between Voltage/Terminal_30 12300 12700
expect_between TransmissionQuality 90 100
means "The vehicle's battery has $(value Voltage/Terminal_30) mV."

call one rdxSetIpConfiguration "$(text DeviceOwner "${name[one]}")" "$(text IpAddress 192.168.7.20)" \
    "$(text Netmask 255.255.255.128)" "$(text DefaultGateway 192.168.7.1)" "$(number DhcpMode 41203)"
succeeds
expect RebootRequired=true
means 'The fixed address is accepted; the device uses it when it has started again.'

call one rdxInitiateCfgRequest "$(text DeviceOwner "${name[one]}")" "$(number CfgMode 41603)"
succeeds
means 'The device has been asked to enter a configuration mode.'

call one rdxUpdateDeviceFirmware "$(text DeviceOwner "${name[one]}")" \
    "$(text DownloadUrl "http://${address[one]}/firmware.bin")" "$(number FirmwareRev 1)" \
    "$(number IsSigned 0)"
succeeds
means 'The device has taken the update and installs it.'

while_status one FirmwareRev "$firmware"
expect Status/code=0 FirmwareRev=$((firmware + 1)) DhcpMode=41203 IpAddress="$address_before"
means "The firmware is revision $((firmware + 1)) now. The address still is the one before."

restart_device
user='' call one rdxGetDeviceStatus
expect Status/code=0 IpAddress=192.168.7.20 Netmask=255.255.255.128 DefaultGateway=192.168.7.1 \
    DhcpMode=41203 FirmwareRev=$((firmware + 1)) IsAllocated=1 DeviceOwner="${name[one]}"
expect_attribute Location 'Bay 7' true
expect_no_attribute Note
means 'The new address is in use. What was to be kept is there, and the owner still has the device.'

chapter 'The other takes over'

call two rdxReleaseDevice "$(text DeviceOwner "${name[two]}")"
owned_by one
means "Refused: only the owner can give the device back."

call one rdxReleaseDevice "$(text DeviceOwner "${name[one]}")"
succeeds
means 'The device is free.'

call one rdxReleaseDevice "$(text DeviceOwner "${name[one]}")"
expect Status/code=42102 Status/msg=9011 Status/params/0/ReleasedBy="${address[one]}:*"
means 'A second time there is nothing to give back; the answer says who did it.'

allocate two
succeeds
means 'Workstation 2 has the device.'

user='' call one rdxGetDeviceStatus
expect Status/code=0 IsAllocated=1 DeviceOwner="${name[two]}" IfUsage/0/ControlledBy="${address[two]}"
expect_attribute Location 'Bay 7' true
means "The status names the new owner, and what the first one set is still there."

call one rdxSetDeviceAttributes "$(text DeviceOwner "${name[one]}")" \
    "$(list SlpAttributes "$(attribute Location 'Bay 1' true)")"
owned_by two
means 'Now it is Workstation 1 that is refused.'

call two rdxReleaseDevice "$(text DeviceOwner "${name[two]}")"
succeeds
means 'The device is free for whoever comes next.'
