#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets into fuzz/corpus/<target>/.

The seeds spell their property names literally (selector 5, see
Harness.hpp), so they keep their meaning when rows are added to the tables.
Run it again after changing a seed here; regression inputs found by the
fuzzer are added to the corpus directories as files of their own
(regression-*) and are not touched by this script.
"""
import pathlib

HERE = pathlib.Path(__file__).resolve().parent
PREFIX = "dds.transport.udp"
ACTION = "dds.property_validation_action"


def prop(name, value):
    return b"\x05" + name.encode() + b"\0" + value.encode() + b"\0"


def props(pairs):
    return b"".join(prop(name, value) for name, value in pairs)


GENERIC_V4 = [
    ("parent.classid", "UDPv4"),
    ("parent.address_bit_count", "32"),
    ("parent.properties_bitmap", "VESK_TRANSPORT_PROPERTIES_BITMAP_DEFAULT"),
    ("parent.gather_send_buffer_count_max", "16"),
    ("parent.message_size_max", "UDPV4_PAYLOAD_SIZE_MAX"),
    ("parent.allow_interfaces_list", "lo, 127.0.0.1"),
    ("parent.deny_interfaces", "eth9"),
    ("parent.allow_multicast_interfaces_list", "lo"),
    ("parent.deny_multicast_interfaces_list", "eth8,eth9"),
    ("parent.thread_name_prefix", "fuzz"),
    ("participant_guid_prefix", "1,2,3"),
    ("parent.max_interface_count", "LENGTH_UNLIMITED"),
]
UDP_V4 = [
    ("send_socket_buffer_size", "VESK_TRANSPORT_UDPV4_SOCKET_BUFFER_SIZE_OS_MAX"),
    ("recv_socket_buffer_size", "65536"),
    ("unicast_enabled", "true"),
    ("multicast_enabled", "1"),
    ("multicast_ttl", "2"),
    ("multicast_loopback_disabled", "no"),
    ("ignore_loopback_interface", "0"),
    ("ignore_nonup_interfaces", "1"),
    ("ignore_nonrunning_interfaces", "1"),
    ("no_zero_copy", "0"),
    ("send_blocking", "TRANSPORT_BLOCKING_NEVER"),
    ("enable_v4mapped", "0"),
    ("use_checksum", "1"),
    ("transport_priority_mask", "0xff"),
    ("transport_priority_mapping_low", "0"),
    ("transport_priority_mapping_high", "255"),
    ("send_ping", "1"),
    ("force_interface_poll_detection", "0"),
    ("interface_poll_period", "500"),
    ("reuse_multicast_receive_resource", "1"),
    ("protocol_overhead_max", "28"),
    ("disable_interface_tracking", "0"),
    ("join_multicast_group_timeout", "5000"),
    ("gather_detailed_statistics", "1"),
]
WAN = [
    ("parent.classid", "UDPv4_WAN"),
    ("public_address", "192.0.2.1"),
    ("comm_ports", '{"default":{"rtps":7400,"host":7400,"public":7401},'
                   '"mappings":[{"rtps":7410,"host":7411},{"rtps":7420,"public":9000}]}'),
    ("wan_listener_ptr", "0"),
    ("port_offset", "125"),
    ("binding_ping_period", "1000"),
    ("binding_ping_mapping_expiration", "2000"),
]


def udp(mode, fail_at, pairs):
    return bytes([mode, fail_at]) + props(pairs)


V4, WAN_CLASS, V6 = 0, 1, 2
PREFIXED, FACTORY, LOG = 0x10, 0x20, 0x80

SEEDS = {
    "udp_setup": {
        "v4-empty": udp(V4 | FACTORY, 0, []),
        "v4-every": udp(V4 | FACTORY | LOG, 0, GENERIC_V4 + UDP_V4),
        "wan-json": udp(WAN_CLASS | FACTORY | LOG, 0, WAN),
        "wan-single-port": udp(WAN_CLASS | FACTORY, 0, [("comm_ports", "7400")]),
        "v6-prefixed": udp(V6 | PREFIXED | FACTORY, 0,
                           [(f"{PREFIX}.parent.classid", "UDPv6"),
                            (f"{PREFIX}.parent.allow_interfaces_list", "lo, ::1"),
                            (f"{PREFIX}.enable_v4mapped", "1"),
                            (f"{PREFIX}.send_blocking", "VESK_TRANSPORT_UDPV6_BLOCKING_NEVER")]),
        "bad-value": udp(V4 | LOG, 0, [("send_blocking", "maybe")]),
        "unknown-name": udp(V4 | LOG, 0, [("bogus.name", "1")]),
        "warning-action": udp(V4 | FACTORY | LOG, 0,
                              [(ACTION, "WARNING"), ("prefix", PREFIX),
                               (f"{PREFIX}.bogus", "1"), ("multicast_ttl", "3")]),
        "long-thread-prefix": udp(V4 | LOG, 0, [("parent.thread_name_prefix", "averylongprefix"),
                                                ("thread_name_prefix", "alsomuchtoolong")]),
        "fail-third-allocation": udp(WAN_CLASS | FACTORY, 3, GENERIC_V4[5:9] + WAN[1:3]),
    },
    "shmem_setup": {
        "empty": bytes([FACTORY, 0]),
        "every": bytes([FACTORY | LOG, 0]) + props([
            ("received_message_count_max", "32"), ("receive_buffer_size", "1048576"),
            ("segmentKeyOffset", "4194304"), ("segmentKeyFactor", "1"),
            ("semaphoreKeyOffset", "8388608"), ("semaphoreKeyFactor", "1"),
            ("mutexKeyOffset", "11534336"), ("mutexKeyFactor", "1"),
            ("maxAllowedWriterDurationMillisec", "500"), ("host_id", "7"),
            ("CORE_6518_unit_test_disable_shmem", "false"),
            ("parent.thread_name_prefix", "shm"), ("parent.allow_interfaces_list", "lo")]),
        "version-from-uuid": bytes([2 | 0x04 | (2 << 3) | FACTORY, 0, 6, 1, 0, 0]) +
        props([("use_530_from_uuid_locator", "0")]),
        "old-version-no-robust": bytes([2 | 0x40 | FACTORY | LOG, 0, 4, 5, ord("6"), 0]),
        "udp-debugging": bytes([FACTORY | LOG, 0]) + props([
            ("enable_udp_debugging", "1"), ("udp_debugging_address", "127.0.0.1"),
            ("udp_debugging_port", "7399")]),
        "bad-host-id": bytes([0x04 | LOG, 0]) + props([("host_id", "x")]),
        "fail-second-allocation": bytes([FACTORY, 2]) + props([("parent.deny_interfaces", "a,b")]),
    },
    "comm_ports_json": {
        "default-only": b"\x80\0" + b'{"default":{"rtps":7400,"host":7400,"public":7401}}',
        "mappings": b"\0\0" + b'{"default":{"host":1},"mappings":[{"rtps":1},{"host":2},'
                              b'{"public":3},{"rtps":4,"host":5,"public":6}]}',
        "no-default": b"\x80\0" + b'{"mappings":[]}',
        "not-json": b"\x80\0" + b'{"default":',
        "mappings-object": b"\x80\0" + b'{"default":{},"mappings":{"a":{"rtps":1}}}',
        "string-port": b"\x80\0" + b'{"default":{"rtps":"x"}}',
        "fail-second-allocation": b"\0\2" + b'{"default":{},"mappings":[{"rtps":1}]}',
    },
    "interface_list": {
        "list-under-prefix": b"\x80\0" + prop(f"{PREFIX}.parent.allow_interfaces_list",
                                              "eth0, 10.0.0.1 ,lo"),
        "single-wins": b"\x01\0" + prop(f"{PREFIX}.parent.deny_interfaces", "eth0") +
        prop(f"{PREFIX}.parent.deny_interfaces_list", "eth1,eth2"),
        "empty-value": b"\x06\0" + prop("parent.allow_multicast_interfaces", ""),
        "caller-array": b"\x0c\0" + prop("parent.allow_interfaces", "a,,b,"),
        "flagged-start": b"\xc0\0" + prop(f"{PREFIX}.parent.allow_interfaces", "x"),
        "fail-second-allocation": b"\x04\2" + prop("parent.allow_interfaces_list", "a,b,c"),
    },
}


def main():
    for target, seeds in SEEDS.items():
        directory = HERE / "corpus" / target
        directory.mkdir(parents=True, exist_ok=True)
        for name, data in seeds.items():
            (directory / name).write_bytes(data)


if __name__ == "__main__":
    main()
