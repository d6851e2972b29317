"""vexlo serve against the simulated adapter, with python-can's socketcand interface as the client."""
import contextlib
import os
import re
import statistics
import socket
import time

import can
import pytest

from serve_support import read_until, server_factory  # noqa: F401 (server_factory: a fixture)


def message(ident, ext, data):
    return can.Message(arbitration_id=ident, is_extended_id=ext, data=data)


def fields(m):
    """python-can 4.1 reads every frame as extended: the format shows in the raw rows below."""
    return (m.arbitration_id, bytes(m.data))


FRAMES = [(0x123, False, b""), (0x7FF, False, bytes([0xA5])), (0x000, False, bytes(range(1, 9))),
          (0x1FFFFFFF, True, bytes.fromhex("DEADBEEF")), (0x10000000, True, bytes(range(7))),
          (0x0, False, bytes.fromhex("0011223344"))]


def test_clients_of_both_buses_see_each_others_frames(server_factory):
    srv = server_factory()
    a1, a2, b = srv.bus("can0"), srv.bus("can0"), srv.bus("can1")
    for sender, receivers, silent in [(a1, [a2, b], a1), (b, [a1, a2], b), (a2, [a1, b], a2)]:
        for ident, ext, data in FRAMES:
            before = time.time()
            sender.send(message(ident, ext, data))
            for r in receivers:
                got = r.recv(5)
                assert got is not None and fields(got) == (ident, data)
                assert before - 0.001 <= got.timestamp <= time.time() + 0.001
        assert silent.recv(0.2) is None  # never its own frames
    # What python-can drops, read from plain sockets: remote and extended-with-flag frames.
    r0, r1 = srv.raw("can0"), srv.raw("can1")
    r0.sendall(b"< sendrtr 1ABCDEF0 3 >< sendrtr 12 0 >< send 9FFFFFFF 1 ff >< send 00000012 2 1 2 >< send 1 0 >")
    got = [re.sub(r" \d+\.\d{6} ", " T ", m) for m in read_until(r1, 5)]
    assert got == ["< rtr 1ABCDEF0 T 3 >", "< rtr 012 T 0 >", "< frame 1FFFFFFF T FF >", "< frame 00000012 T 0102 >",
                   "< frame 001 T  >"]
    for bus in (a1, a2, b):
        bus.shutdown()
    srv.wait_line("disconnected (closed by the client, can1, 0 frames dropped)")
    srv.stop()


def test_bcm_cyclic_frames_subscriptions_and_statistics(server_factory):
    srv = server_factory()
    sender, watcher = srv.raw("can0", "bcmmode"), srv.raw("can1", "bcmmode")
    # A muxfilter on 322: byte 0 picks the row; row 01 passes changes of byte 1, row 02 of byte 2's low half.
    watcher.sendall(b"< subscribe 0 0 123 >< filter 0 0 321 1 F0 >< muxfilter 0 0 322 3 FF 0 0 0 0 0 0 0 "
                    b"01 FF 0 0 0 0 0 0 02 00 0F 0 0 0 0 0 >")
    counter = srv.bus("can1")
    sender.sendall(b"< add 0 10000 123 2 AA BB >")
    sent, end = [], time.time() + 1
    while time.time() < end:  # read as they come: python-can 4.1 loses a message cut by its reads
        sent += [m] if (m := counter.recv(0.01)) else []
    sender.sendall(b"< delete 123 >")
    while (m := counter.recv(0.2)) is not None:
        sent.append(m)
    # The job's period from the frames' own stamps (the adapter's acceptance), not from this
    # reader's clock: a loaded machine delays the reader, not the schedule.
    assert len(sent) >= 50
    assert 0.009 <= statistics.median(b.timestamp - a.timestamp for a, b in zip(sent, sent[1:])) <= 0.011
    assert {fields(m) for m in sent} == {(0x123, b"\xAA\xBB")}
    # The watcher's subscription passes them all; its content filter only changes in the high nibble.
    for frame in ["321 1 01", "321 1 02", "321 1 12", "321 1 13", "321 1 F3", "322 3 01 AA 00", "322 3 01 AA 55",
                  "322 3 02 00 01", "322 3 02 00 11", "322 3 01 AB 00", "322 3 03 00 00", "322 3 02 00 12"]:
        sender.sendall(f"< send {frame} >".encode())
        time.sleep(0.02)
    got = [m.split()[4] for m in read_until(watcher, len(sent) + 7)]
    assert got == ["AABB"] * len(sent) + ["01", "12", "F3", "01AA00", "020001", "01AB00", "020012"]
    sender.sendall(b"< controlmode >< statistics 60000 >< echo >")  # the first report after the interval
    assert read_until(sender, 3, timeout=0.5) == ["< ok >", "< echo >"]
    sender.sendall(b"< statistics 100 >")
    tx_packets = len(sent) + 12
    assert read_until(sender, 2) == [f"< stat 0 0 {2 * len(sent) + 5 + 3 * 7} {tx_packets} >"] * 2
    srv.stop()


def test_bad_input_gets_errors_and_limits_hold(server_factory):
    srv = server_factory(serve_args=["--max-clients", "2"])
    s = srv.raw()
    s.sendall(b"< send 123 1 00 >")
    assert read_until(s, 1) == ["< error no bus open >"]
    s.sendall(b"< open can0 >")
    assert read_until(s, 1) == ["< ok >"]
    table = [("< frobnicate >", "unknown command"), ("<>", "unknown command"),
             ("< send 123 3 01 02 >", "the number of data bytes differs from the length"),
             ("< send 12G 0 >", "bad identifier"), ("< send 123 9 0 0 0 0 0 0 0 0 0 >", "bad length (0 to 8)"),
             ("< send 123 1 100 >", "bad data byte"), ("< rawmode now >", "wrong number of arguments"),
             ("< open can1 >", "a bus is open already"), ("< isotpmode >", "isotp mode is not supported"),
             ("< set_bitrate 500000 >", "the bit timing is set when the server starts"),
             ("< statistics 100 >", "statistics need control mode"), ("< update 123 0 >", "no cyclic frame with this identifier"),
             ("< add 0 10 123 0 >", "interval shorter than 100 us"), ("< unsubscribe 5 >", "no subscription with this identifier"),
             ("< rawmode >< subscribe 0 0 1 >", "this command needs bcm mode")]
    for command, error in table:
        s.sendall(command.encode() + b"< echo >")
        got = read_until(s, 3 if "rawmode" in command else 2)
        assert got[-2:] == [f"< error {error} >", "< echo >"], command
    # A third client is one too many; a closed one makes room.
    s2 = srv.raw()
    s3 = socket.create_connection(("127.0.0.1", srv.port))
    assert s3.recv(100) == b"< error too many clients >"
    s2.close()
    srv.wait_line("disconnected (closed by the client")
    # An unknown bus and an over-long command each end their connection after the error.
    for conn, command, error in [(srv.raw(), "< open can7 >", "could not open bus"),
                                 (s, "< send " + "1" * 9000 + " >", "command too long")]:
        conn.sendall(command.encode())
        assert read_until(conn, 2) == [f"< error {error} >"]
    with pytest.raises(can.CanError):
        server_factory(serve_args=["--allow", "10.0.0.0/8,::1"]).bus("can0")


def test_a_slow_client_loses_frames_alone(server_factory):
    srv = server_factory(["-g", "1:10000:seq"])
    slow = socket.socket()
    slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    slow.connect(("127.0.0.1", srv.port))
    slow.sendall(b"< open can1 >< rawmode >")
    fast = srv.raw("can1")
    seqs, end = [], time.time() + 3
    while time.time() < end:
        for m in read_until(fast, 1000, timeout=0.1):
            if m.startswith("< frame"):
                seqs.append(int.from_bytes(bytes.fromhex(m.split()[4]), "little"))
    assert len(seqs) > 5000
    assert seqs == list(range(seqs[0], seqs[0] + len(seqs)))
    slow.close()
    fast.close()
    srv.wait_line("reads too slowly: frames dropped")
    srv.wait_line("disconnected", count=2)
    dropped = [int(m) for m in re.findall(r"can1, (\d+) frames dropped", "".join(srv.lines))]
    assert len(dropped) == 2 and dropped[0] > 1000 and dropped[1] == 0  # the slow one closed first


def test_unplug_closes_clients_and_the_adapter_is_served_again(server_factory):
    srv = server_factory(["--unplug", "0:3:5"])
    before = srv.raw("can0", "bcmmode")
    # A client transmits at the unplug; the loop never waits for the adapter, so a client without a
    # bus gets its echo at once throughout (it waited 3 s when the loop waited for the transmission).
    sender, pinger = srv.raw("can1"), srv.raw()
    sender.setblocking(False)
    longest, until, deadline = 0, None, time.time() + 30
    while time.time() < (until or deadline):
        with contextlib.suppress(OSError):  # more than the bus takes
            sender.send(b"< send 123 8 1 2 3 4 5 6 7 8 >" * 200)
        start = time.time()
        pinger.sendall(b"< echo >")
        assert read_until(pinger, 1) == ["< echo >"]
        longest = max(longest, time.time() - start)
        if until is None and any("was unplugged" in line for line in srv.lines):
            until = time.time() + 1
        time.sleep(0.01)
    assert until and longest < 1.5
    assert read_until(before, 2, timeout=10) == ["< error adapter unplugged >"]
    assert before.recv(100) == b""
    srv.wait_line("adapter 0 was unplugged")
    during = srv.raw()
    during.sendall(b"< open can0 >")
    assert read_until(during, 2) == ["< error could not open bus >"]
    srv.wait_line("adapter 0 is back", timeout=10)
    a, b = srv.bus("can0"), srv.bus("can1")
    a.send(message(0x42, False, b"\x01"))
    assert fields(b.recv(5)) == (0x42, b"\x01")
    srv.stop()


def test_clients_that_leave_at_once_leave_nothing_behind(server_factory):
    """1,000 clients open raw mode and close at once, 1,000 ask for statistics and close, one asks
    100,000 times: the server keeps its descriptors and memory, and no task of a client runs after
    it (the address sanitizer's build ends the server at the first use of freed memory)."""
    srv = server_factory(serve_args=["--max-clients", "1000"])

    def churn(command, count=1000):
        for _ in range(count):
            with socket.create_connection(("127.0.0.1", srv.port)) as s:
                s.recv(100)
                s.sendall(command)
    churn(b"< open can0 >< echo >", 100)  # the server's own allocations settle first
    srv.wait_line("disconnected", count=100)
    before = srv.usage()
    churn(b"< open can0 >< rawmode >")
    churn(b"< open can1 >< controlmode >< statistics 100 >")
    s = srv.raw("can0", "controlmode")
    s.sendall(b"< statistics 86400000 >" * 100000 + b"< echo >")
    assert read_until(s, 1, timeout=120) == ["< echo >"]
    s.close()
    srv.wait_line("disconnected", count=2101)
    time.sleep(0.5)
    after = srv.usage()
    assert after[0] == before[0]
    if "ASAN_OPTIONS" not in os.environ:  # the sanitizer keeps freed memory aside
        assert after[1] - before[1] < 2048, (before, after)
    srv.stop()


def test_a_closing_client_is_answered_and_its_frames_go_out(server_factory):
    srv = server_factory()
    watcher, sender = srv.raw("can1"), srv.raw("can0")
    # 60 frames and the end at once: every one reaches the bus, as a socket's frames do.
    sender.sendall(b"".join(f"< send {i:X} 1 {i:02X} >".encode() for i in range(60)))
    sender.close()
    assert [m.split()[2] for m in read_until(watcher, 60)] == [f"{i:03X}" for i in range(60)]
    # 20,000 echoes and the end of sending, read slowly: every answer arrives before the end.
    slow = socket.socket()
    slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    slow.connect(("127.0.0.1", srv.port))
    slow.sendall(b"< echo >" * 20000)
    slow.shutdown(socket.SHUT_WR)
    time.sleep(0.5)  # the server has read the end by now
    data = b""
    while chunk := slow.recv(4096):
        data += chunk
        time.sleep(0.001)
    assert data.count(b"< echo >") == 20000


def test_buses_are_configured_before_open_while_no_one_else_uses_them(server_factory):
    srv = server_factory(serve_args=["--beacon", "127.0.0.1"], host="::1")
    srv.wait_line("no beacon: it names an IPv4 address to connect to, and the server listens on none")
    cfg = srv.raw()

    def configure(command, answer):
        cfg.sendall(command.encode())
        assert read_until(cfg, 1) == [f"< {answer} >"], command
    for command, answer in [("< can0 B 5 0 0 0 0 0 0 0 >", "error bit rate 5 cannot be reached within 1%; nearest rates: 5000"),
                            ("< can0 C 0 1 0 >", "error the adapter has no loopback mode"),
                            ("< can7 C 0 0 0 >", "error no bus named can7"), ("< can0 C 1 0 0 >", "ok")]:
        configure(command, answer)
    user = srv.raw("can0")
    user.sendall(b"< send 1 0 >")
    assert read_until(user, 1) == ["< error the bus is listen-only >"]
    configure("< can0 C 0 0 0 >", "error the bus is in use by another client")
    user.close()
    srv.wait_line("disconnected")
    configure("< can0 C 0 0 0 >", "ok")
    configure("< can0 B 0 0 250 6 7 2 1 2 >", "ok")  # 16 quanta of 250 ns
    srv.wait_line("set can0: 250000 bit/s, sample point 87.5% (timing 01:1C)")
    # can1 runs at 1 Mbit/s: can0's frames cross once it runs at 250 kbit/s too.
    a, b = srv.raw("can0"), srv.raw("can1")
    a.sendall(b"< send 2 0 >")
    assert read_until(b, 1, timeout=1) == []
    b.close()
    srv.wait_line("disconnected", count=2)
    configure("< can1 B 250000 0 0 0 0 0 0 0 >", "ok")
    b = srv.raw("can1")
    a.sendall(b"< send 3 0 >")
    assert "003" in [m.split()[2] for m in read_until(b, 2, timeout=2)]
    srv.stop()
