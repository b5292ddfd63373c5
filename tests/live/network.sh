# The network of the live call, made of network namespaces: see docs/live.md.
# Sourced. The caller sets run (a name that no other run has) and folder (an
# empty one of its own, without a dot in its path, since pinning replaces dots),
# and calls remove_network at the end whatever happens.

here=$(dirname "${BASH_SOURCE[0]}")
voice_vlan=100
voice_priority=6
voice_dscp=46
phone_mac=00:04:76:00:00:01
pc_mac=00:1b:21:00:00:01
server_voice_mac=02:00:00:00:01:00
phone_address=10.100.0.2
server_voice_address=10.100.0.1
pc_address=10.10.0.2
server_data_address=10.10.0.1
uplink_ifindex=110 # both are fixed, since the adapter is compiled with them
voice_peer_ifindex=111
namespaces=(tel pc edge sw srv)

# in_namespace NAME COMMAND...: as "ip netns exec", but that mounts /sys again,
# which hides BPF file systems.
in_namespace() {
    local name=$1
    shift
    nsenter --net="/run/netns/$run-$name" "$@"
}

# Call it before make_network: namespaces that exist already do not get the mount.
mount_bpf() {
    mkdir "$folder/bpf"
    mount -t bpf -o mode=0700 bpf "$folder/bpf"
}

make_network() {
    make_namespaces
    make_cable tel eth0 edge tel address "$phone_mac"
    make_cable pc eth0 edge pc address "$pc_mac"
    make_cable edge sw sw port1
    make_cable srv uplink sw port24 index "$uplink_ifindex"
    make_cable srv voice-peer srv voice index "$voice_peer_ifindex"
    in_namespace srv ip link set dev voice address "$server_voice_mac"
    make_bridge edge tel pc sw
    make_bridge sw port1 port24
    use_interface tel eth0 "$phone_address/24"
    use_interface pc eth0 "$pc_address/24"
    use_interface srv uplink "$server_data_address/24"
    use_interface srv voice-peer
    use_interface srv voice "$server_voice_address/24"
    attach_adapter
}

# May be called at any time, and more than once.
remove_network() {
    local name
    for name in "${namespaces[@]}"; do
        [ ! -e "/run/netns/$run-$name" ] || ip netns delete "$run-$name"
    done
    ! mountpoint -q "$folder/bpf" || umount "$folder/bpf"
}

make_namespaces() {
    local name
    for name in "${namespaces[@]}"; do
        ip netns add "$run-$name"
        # Otherwise each interface sends IPv6 neighbour and router solicitations.
        in_namespace "$name" bash -c 'for file in /proc/sys/net/ipv6/conf/{all,default}/disable_ipv6; do
            [ ! -e "$file" ] || echo 1 >"$file"; done'
    done
    # The server answers on each side for that side's address only.
    in_namespace srv bash -c 'echo 1 >/proc/sys/net/ipv4/conf/all/arp_ignore'
}

# make_cable NAMESPACE INTERFACE NAMESPACE INTERFACE [PROPERTY-OF-FIRST VALUE]
make_cable() {
    in_namespace "$1" ip link add name "$2" "${@:5}" type veth peer name "$4" netns "$run-$3"
}

make_bridge() { # NAMESPACE INTERFACE...
    local name=$1 interface
    shift
    in_namespace "$name" ip link add name br type bridge stp_state 0 mcast_snooping 0
    in_namespace "$name" ip link set dev br up
    for interface in "$@"; do
        in_namespace "$name" ip link set dev "$interface" master br up
    done
}

use_interface() { # NAMESPACE INTERFACE [ADDRESS]
    # The interface leaves checksums uncomputed otherwise, and damage would not show.
    in_namespace "$1" python3 "$here/frames.py" compute-checksums "$2"
    in_namespace "$1" ip link set dev "$2" up
    [ -z "${3:-}" ] || in_namespace "$1" ip address add "$3" dev "$2"
}

attach_adapter() {
    clang-14 -target bpf -O2 -g -Wall -I"/usr/include/$(uname -m)-linux-gnu" \
        -DVOICE_VLAN="$voice_vlan" -DVOICE_PRIORITY="$voice_priority" -DVOICE_DSCP="$voice_dscp" \
        -DPHONE_MAC="0x${phone_mac//:/}" -DPC_MAC="0x${pc_mac//:/}" \
        -DUPLINK_IFINDEX="$uplink_ifindex" -DVOICE_PEER_IFINDEX="$voice_peer_ifindex" \
        -c "$here/server_tag.bpf.c" -o "$folder/adapter.o"
    mkdir "$folder/bpf/maps"
    bpftool prog loadall "$folder/adapter.o" "$folder/bpf/adapter" pinmaps "$folder/bpf/maps"
    attach srv uplink ingress uplink_in
    attach srv voice-peer ingress voice_out
    attach tel eth0 ingress phone_in
    attach tel eth0 egress phone_out
    attach pc eth0 ingress pc_in
    attach pc eth0 egress pc_out
}

attach() { # NAMESPACE INTERFACE ingress|egress PROGRAM
    in_namespace "$1" tc qdisc replace dev "$2" clsact
    in_namespace "$1" tc filter add dev "$2" "$3" bpf direct-action object-pinned "$folder/bpf/adapter/$4"
}
