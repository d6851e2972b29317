"""Serial-line CAN lines of vexlo serve against the simulated adapter, with python-can's slcan and
socketcand interfaces as the clients. Channels 0 and 1 of the simulated adapter are cabled."""
import os
import socket
import subprocess
import threading
import time

import can
import pytest
import serial

from serve_support import SIM, VEXLO, free_port, server_factory  # noqa: F401 (server_factory: a fixture)


@pytest.fixture
def serve(tmp_path, server_factory):
    """vexlo serve with a pseudo-terminal line at .link on link_ch and a TCP line on tcp_ch (.tcp, .url)."""

    def start(sim_args=(), link_ch=0, tcp_ch=1, args=()):
        link, tcp = str(tmp_path / "ttyVEXLO0"), free_port()
        srv = server_factory(["--hw-version", "0105", "--fw-version", "0207", "--serial", "SER4321", *sim_args],
                             ["--no-beacon", "--slcan", f"{link}={link_ch}", "--slcan-tcp", f"{tcp}={tcp_ch}", *args],
                             rate=None)
        srv.link, srv.tcp, srv.url = link, tcp, f"socket://127.0.0.1:{tcp}"
        return srv

    return start


def slcan(channel, **kw):
    return can.Bus(interface="slcan", channel=channel, sleep_after_open=0, **kw)


def fields(m):
    return (m.arbitration_id, m.is_extended_id, m.is_remote_frame, m.dlc, bytes(m.data))


def receive(bus, count, timeout=3.0):
    got, end = [], time.time() + timeout
    while len(got) < count and time.time() < end:
        m = bus.recv(0.2)
        if m is not None:
            got.append(fields(m))
    return got


def exchange(port, text, until=b"\r", timeout=3.0):
    """Writes text to a raw serial connection and reads the replies until they end with `until`."""
    port.write(text)
    data, end = b"", time.time() + timeout
    while not data.endswith(until) and time.time() < end:
        data += port.read(max(1, port.in_waiting))
    return data


FRAMES = [can.Message(arbitration_id=0x100 + n, data=bytes(range(n)), is_extended_id=False) for n in range(9)] + [
    can.Message(arbitration_id=0x1ABCDE00 + n, data=bytes(range(8 - n, 8)), is_extended_id=True) for n in (0, 5, 8)] + [
    can.Message(arbitration_id=0x7FF, is_remote_frame=True, dlc=3, is_extended_id=False),
    can.Message(arbitration_id=0x1FFFFFFF, is_remote_frame=True, dlc=0, is_extended_id=True)]


def test_python_can_both_ways_over_pty_and_tcp_rates_stamps_and_identity(serve):
    s = serve()
    pty, tcp = slcan(s.link, bitrate=500000), slcan(s.url, btr="001C")
    assert pty.get_version(2) == (10, 20) and tcp.get_serial_number(2) == "4321"
    for a, b in ((pty, tcp), (tcp, pty)):
        for m in FRAMES:
            a.send(m)
        assert receive(b, len(FRAMES)) == [fields(m) for m in FRAMES]
    tcp.shutdown()
    slave = os.readlink(s.link)
    pty.shutdown()
    end = time.time() + 5
    while os.readlink(s.link) == slave and time.time() < end:  # a fresh line for the next client
        time.sleep(0.01)
    # Rates: the pseudo-terminal's channel to 125k by S4 no longer hears the TCP line's channel at
    # 500k, until that one goes to 125k by its timing bytes.
    with serial.serial_for_url(s.link, timeout=0.2) as a, serial.serial_for_url(s.url, timeout=0.2) as b:
        assert exchange(a, b"C\rS4\rO\rZ1\r", b"\r\r\r\r") == b"\r\r\r\r"
        assert exchange(b, b"O\rt1230\r", b"z\r") == b"\rz\r"
        assert exchange(a, b"", b"never", 0.5) == b""
        # Its frame, acknowledged by nobody, took the channel to error warning, then to error passive
        # at a transmit error count of 128: state lines as the kernel's slcan reads them.
        assert exchange(b, b"C\rs031C\rO\rt1231AA\r", b"z\r") == b"sw000000\rsp000128\r\r\r\rz\r"
        line = exchange(a, b"")
        assert line[:7] == b"t1231AA" and abs(int(line[7:11], 16) - time.time() * 1000 % 60000) < 1000
        # An unknown command gets BEL and the line goes on.
        assert exchange(a, b"X\rV\rN\r", b"N4321\r") == b"\aV1020\rN4321\r"
        # A burst of 2,000 frames reaches the other line whole and in order.
        burst = [b"t%03X2%04X\r" % (n & 0x7FF, n) for n in range(2000)]
        assert exchange(a, b"Z0\r") == b"\r"
        b.write(b"".join(burst))
        assert exchange(a, b"", burst[-1], 20) == b"".join(burst)


def test_slcan_and_socketcand_clients_share_a_channel(serve):
    s = serve(link_ch=0, tcp_ch=0)
    sock = can.Bus(interface="socketcand", host="127.0.0.1", port=s.port, channel="can0")
    line = slcan(s.link)
    # python-can 4.1's socketcand client marks every frame extended: compare identifier and data there.
    for a, b, seen in ((line, sock, lambda f: (f[0], f[4])), (sock, line, lambda f: f)):
        a.send(FRAMES[4])
        a.send(FRAMES[10])
        assert [seen(f) for f in receive(b, 2)] == [seen(fields(FRAMES[4])), seen(fields(FRAMES[10]))]
        assert receive(a, 1, 0.5) == []  # not its own
    # The rate cannot change under the socketcand client, nor is it needed when it is already so.
    with serial.serial_for_url(s.url, timeout=0.2) as other:
        assert exchange(other, b"S8\rS6\r", b"\r") == b"\a\r"
    line.shutdown()
    sock.shutdown()
    assert "1000000 bit/s (timing 00:14), acceptance code 00000000 mask FFFFFFFF: refused, another client uses the " \
           "channel" in s.stop()


def test_bad_clients_do_not_block_the_server(serve):
    s = serve(["-g", "0:4000:seq8"], link_ch=1, tcp_ch=0)
    # A new client starts on a closed line with nothing queued, also right after the last one closed.
    for _ in range(20):
        with open(s.link, "r+b", buffering=0) as old:
            old.write(b"O\rZ1\r")
            time.sleep(0.01)
        with serial.serial_for_url(s.link, timeout=0.2) as new:
            assert exchange(new, b"V\r", b"V1020\r") == b"V1020\r"
    never = serial.serial_for_url(s.link, timeout=0.2)  # opens the line and does not read for 2 s
    never.write(b"O\r")
    with socket.create_connection(("127.0.0.1", s.tcp)) as c:
        c.sendall(b"V" * 10_000_000)
        c.sendall(bytes(range(256)) * 64 + b"\rV\r")
        data, end = b"", time.time() + 10
        while not data.endswith(b"\aV1020\r") and time.time() < end:
            data += c.recv(65536)
        assert data.endswith(b"\aV1020\r")
    # 50,000 commands from a client that does not read meanwhile: every reply comes, in order.
    with socket.create_connection(("127.0.0.1", s.tcp)) as c:
        threading.Thread(target=c.sendall, args=(b"V\r" * 50_000 + b"N\r",), daemon=True).start()
        time.sleep(1)
        data, end = b"", time.time() + 20
        while not data.endswith(b"N4321\r") and time.time() < end:
            data += c.recv(65536)
        assert data == b"V1020\r" * 50_000 + b"N4321\r"
    time.sleep(1)
    # The replies come after what was held; the frames that did not fit raised the overrun flag, and
    # the log counts exactly those missing from the sequence the client got.
    lines = (exchange(never, b"", b"never", 1) + exchange(never, b"C\rF\r", b"\rF08\r", 10)).split(b"\r")
    assert lines[-3:] == [b"", b"F08", b""]
    seqs = [int.from_bytes(bytes.fromhex(line[5:21].decode()), "little") for line in lines if line[:1] == b"t"]
    never.close()
    log = s.stop()
    assert f"{seqs[-1] - seqs[0] + 1 - len(seqs)} received frames dropped for reading too slowly" in log


def test_the_link_and_the_allow_list(serve, tmp_path):
    # Nothing in the link's place is replaced but a link to a pseudo-terminal that no longer exists.
    link, mine = tmp_path / "ttyVEXLO0", tmp_path / "mine"
    link.write_text("keep")
    p = subprocess.run([SIM, "--", VEXLO, "serve", "--no-beacon", "--slcan", f"{link}=0"], capture_output=True,
                       text=True, timeout=60)
    assert p.returncode != 0 and f"{link}: there is a file (not replaced)" in p.stderr and link.read_text() == "keep"
    link.unlink()
    link.symlink_to("/dev/pts/4095")
    s = serve(args=["--allow", "10.0.0.0/8"])
    # A peer outside --allow is refused on the TCP line as on the socketcand port.
    with socket.create_connection(("127.0.0.1", s.tcp)) as c:
        assert c.recv(100) == b""
    # What the user put in the link's place meanwhile stays after the server's end.
    mine.write_text("mine")
    os.replace(mine, link)
    assert "refused (not allowed)" in s.stop() and link.read_text() == "mine"
