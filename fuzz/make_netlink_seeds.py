#!/usr/bin/env python3
"""Writes the seed corpus of fuzz_netlink into fuzz/corpus/netlink/: route
netlink datagrams as the kernel sends them (links, IPv4 and IPv6 addresses,
the end of a dump, an error) and a few broken ones."""
import pathlib
import socket
import struct

HERE = pathlib.Path(__file__).resolve().parent
RTM_NEWLINK, RTM_DELLINK, RTM_NEWADDR, RTM_DELADDR = 16, 17, 20, 21
NLMSG_ERROR, NLMSG_DONE = 2, 3
IFLA_IFNAME, IFLA_MTU = 3, 4
IFA_ADDRESS, IFA_LOCAL, IFA_LABEL, IFA_FLAGS = 1, 2, 3, 8


def align(b):
    return b + b"\0" * (-len(b) % 4)


def attr(kind, payload):
    return align(struct.pack("=HH", 4 + len(payload), kind) + payload)


def message(kind, body, flags=0):
    return struct.pack("=IHHII", 16 + len(body), kind, flags, 1, 0) + body


def link(kind, index, name, flags=0x41, mtu=1500):
    body = struct.pack("=BxHiII", 0, 1, index, flags, 0xFFFFFFFF)
    body += attr(IFLA_IFNAME, name.encode() + b"\0") + attr(IFLA_MTU, struct.pack("=I", mtu))
    return message(kind, body)


def address(kind, family, index, text, flags=0):
    raw = socket.inet_pton(family, text)
    body = struct.pack("=BBBBI", family, 24 if family == socket.AF_INET else 64, 0, 0, index)
    body += attr(IFA_ADDRESS, raw) + attr(IFA_LOCAL, raw) + attr(IFA_LABEL, b"veth0\0")
    body += attr(IFA_FLAGS, struct.pack("=I", flags))
    return message(kind, body)


SEEDS = {
    "link-new": link(RTM_NEWLINK, 2, "veth0"),
    "link-del": link(RTM_DELLINK, 2, "veth0", 0),
    "addr-v4": address(RTM_NEWADDR, socket.AF_INET, 2, "192.0.2.1"),
    "addr-v6-del": address(RTM_DELADDR, socket.AF_INET6, 3, "2001:db8::1", 0x02),
    "addr-tentative": address(RTM_NEWADDR, socket.AF_INET6, 3, "2001:db8::2", 0x40),
    "dump": link(RTM_NEWLINK, 1, "lo", 0x49, 65536) + address(RTM_NEWADDR, socket.AF_INET, 1, "127.0.0.1")
    + message(NLMSG_DONE, struct.pack("=i", 0), 0x2 | 0x10),
    "error": message(NLMSG_ERROR, struct.pack("=i", -16) + struct.pack("=IHHII", 20, 18, 1, 1, 0)),
    "truncated": link(RTM_NEWLINK, 2, "veth0")[:-6],
    "bad-address-size": message(RTM_NEWADDR, struct.pack("=BBBBI", 10, 64, 0, 0, 2)
                                + attr(IFA_ADDRESS, b"\1\2\3\4")),
}

if __name__ == "__main__":
    out = HERE / "corpus" / "netlink"
    out.mkdir(parents=True, exist_ok=True)
    for name, data in SEEDS.items():
        (out / name).write_bytes(data)
