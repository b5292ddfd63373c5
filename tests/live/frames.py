"""What the live call needs of sockets beyond SIPp; one command per call.

    frames.py compute-checksums INTERFACE
    frames.py ping ADDRESS COUNT SECONDS       prints the number of answers
    frames.py send-tagged INTERFACE SOURCE DESTINATION FROM TO VLAN COUNT
"""
import fcntl
import os
import socket
import struct
import sys
import time

SIOCETHTOOL = 0x8946
ETHTOOL_STXCSUM = 0x17
ECHO_REQUEST, ECHO_REPLY = 8, 0
GAP = 0.002  # seconds between frames, so that no queue overflows


def checksum(data):
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    total = (total & 0xFFFF) + (total >> 16)
    return ~(total + (total >> 16)) & 0xFFFF


def compute_checksums(interface):
    import array

    value = array.array("B", struct.pack("II", ETHTOOL_STXCSUM, 0))
    request = struct.pack("16sP", interface.encode(), value.buffer_info()[0]) + bytes(16)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        fcntl.ioctl(control, SIOCETHTOOL, request)


def echo_request(sequence):
    head = struct.pack("!BBHHH", ECHO_REQUEST, 0, 0, os.getpid() & 0xFFFF, sequence)
    return head[:2] + struct.pack("!H", checksum(head)) + head[4:]


def is_answer(packet, sequence):
    kind, _, _, ident, number = struct.unpack_from("!BBHHH", packet, (packet[0] & 15) * 4)
    return kind == ECHO_REPLY and ident == os.getpid() & 0xFFFF and number == sequence


def ping(address, count, seconds):
    """Sends the next request when the one before is answered, or after the time."""
    answers = 0
    with socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP) as link:
        link.settimeout(float(seconds))
        for sequence in range(int(count)):
            link.sendto(echo_request(sequence), (address, 0))
            try:
                while not is_answer(link.recv(2048), sequence):
                    pass
                answers += 1
            except TimeoutError:
                pass
    print(answers)


def ipv4_udp(source, destination, payload):
    udp = struct.pack("!HHHH", 9, 9, 8 + len(payload), 0) + payload
    head = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(udp), 0, 0, 64, socket.IPPROTO_UDP, 0,
                       socket.inet_aton(source), socket.inet_aton(destination))
    return head[:10] + struct.pack("!H", checksum(head)) + head[12:] + udp


def send_tagged(interface, source, destination, sender, receiver, vlan, count):
    """As a PC does that wants to be taken for a telephone."""
    frame = bytes.fromhex((destination + source).replace(":", "")) + struct.pack("!HHH", 0x8100, int(vlan), 0x0800)
    frame += ipv4_udp(sender, receiver, b"let me in")
    with socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as link:
        link.bind((interface, 0))
        for _ in range(int(count)):
            link.send(frame.ljust(64, b"\0"))
            time.sleep(GAP)


COMMANDS = {"compute-checksums": compute_checksums, "ping": ping, "send-tagged": send_tagged}

if __name__ == "__main__":
    if len(sys.argv) < 2 or sys.argv[1] not in COMMANDS:
        sys.exit(__doc__)
    COMMANDS[sys.argv[1]](*sys.argv[2:])
