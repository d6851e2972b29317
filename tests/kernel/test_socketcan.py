# vexlo serve --socketcan inside Linux 6.1 (user-mode Linux), under vexlo-sim: can-utils, python-can's
# socketcan interface, the kernel's BCM, J1939 and gateway, a vxcan pair across network namespaces.
import os
import re
import statistics
import subprocess
import time

import can
import pytest

from kernel_support import SIM, VEXLO, Server, candump, has_link, run


def serve(tmp, sim_args, *channels, trace=True):
    return Server(sim_args, ["--no-beacon", *channels], trace=trace and tmp / "trace")


def text(ident, data, ext=False):
    return f"{ident:{'08X' if ext else '03X'}}#{data.hex().upper()}"


def generated(frames, pattern):
    # True when the frames are consecutive frames of a simulator generator (seq or dlc).
    seq = [int.from_bytes(bytes.fromhex(f.split("#")[1]), "little") for f in frames]
    n0 = next(s - i for i, (s, f) in enumerate(zip(seq, frames)) if len(f) > 8)
    make = lambda n: text(n % 2048, n.to_bytes(8, "little")[:4 if pattern == "seq" else n % 9])
    return frames == [make(n0 + i) for i in range(len(frames))]


@pytest.fixture(scope="module")
def bridge(tmp_path_factory):
    # Both channels bridged, cabled, a remote node sending on channel 1; a serial line on channel 0.
    srv = serve(tmp_path_factory.mktemp("bridge"), ["-g", "1:50:dlc"],
                "--socketcan", "vcan0=0", "--socketcan", "vcan1=1", "--slcan-tcp", "29599=0")
    yield srv
    srv.stop()


def test_candump_gets_the_bus_frames_with_their_fields(bridge):
    dump = candump("-n", "400", "vcan0")  # 8 s of the remote node
    sent = ["1ABCDEF0#1122", "00000123#R3", "7FF#R", "000#"]
    for f in sent:  # from vcan1 through channel 1, the cable and channel 0
        run("cansend", "vcan1", f)
    got = [f for _, f in dump.result()]
    assert [f for f in got if f in sent] == sent
    assert generated([f for f in got if f not in sent], "dlc")


def test_every_frame_written_reaches_the_bus_in_order(bridge):
    start = time.time()
    witness = candump("-n", "1000", "vcan0,80000000:80000000")  # cangen's extended frames, not the bus's
    run("cangen", "vcan0", "-g", "0", "-n", "1000", "-e", "-I", "i", "-L", "8", "-D", "i")
    sent = ["5A1#1122334455667788", "1F334455#", "123#R", "00000123#R8"]
    for f in sent:
        run("cansend", "vcan0", f)
    stamps, written = zip(*witness.result())
    assert 999 / (stamps[999] - stamps[0]) > 1000  # the burst came faster than 1,000 frames/s
    bridge.wait(lambda: len(bridge.on_bus(since=start)) >= 1004)
    assert [f for _, f in bridge.on_bus(since=start)] == list(written) + sent


def test_python_can_socketcan_with_a_socketcand_client_and_a_serial_line(bridge):
    # Extended identifiers: the remote node sends standard frames only.
    only = [{"can_id": 0x1B0000, "can_mask": 0x1FFFFFFF, "extended": True}]
    sc = can.Bus(interface="socketcan", channel="vcan0")
    tcp = can.Bus(interface="socketcand", host="127.0.0.1", port=bridge.port, channel="can0", can_filters=only)
    line = can.Bus(interface="slcan", channel="socket://127.0.0.1:29599", sleep_after_open=0, can_filters=only)
    try:
        assert generated([text(m.arbitration_id, m.data) for m in (sc.recv(5) for _ in range(20))], "dlc")
        sc.set_filters(only)
        start = time.time()
        for k, (sender, receivers) in enumerate([(sc, [tcp, line]), (tcp, [sc, line]), (line, [sc, tcp])]):
            sender.send(can.Message(arbitration_id=0x1B0000, data=bytes([k, 0xA5])))
            for r in receivers:
                got = r.recv(5)
                assert got is not None and (got.arbitration_id, bytes(got.data)) == (0x1B0000, bytes([k, 0xA5]))
        bridge.wait(lambda: len(bridge.on_bus(since=start)) >= 3)
        assert [f for _, f in bridge.on_bus(since=start)] == ["001B0000#00A5", "001B0000#01A5", "001B0000#02A5"]
        start = time.time()
        task = sc.send_periodic(can.Message(arbitration_id=0x1C0000, data=b"\x01"), 0.05)
        time.sleep(2)
        task.stop()
        stamps = [t for t, f in bridge.on_bus(since=start) if f == "001C0000#01"]
        assert len(stamps) >= 30 and 0.045 < statistics.median(b - a for a, b in zip(stamps, stamps[1:])) < 0.055
    finally:
        for b in (sc, tcp, line):
            b.shutdown()


def test_j1939_transfer_from_one_interface_to_the_other(bridge, tmp_path):
    (tmp_path / "in").write_bytes(os.urandom(400))
    receiver = subprocess.Popen(["j1939cat", "vcan1:0x90", "-r"], stdout=open(tmp_path / "out", "wb"))
    time.sleep(0.3)
    # j1939cat may exit 1 after a complete transfer as the sender: the receiver's bytes decide.
    subprocess.run(["j1939cat", "-i", str(tmp_path / "in"), "vcan0:0x80", ":0x90,0x12300"], timeout=60)
    bridge.wait(lambda: (tmp_path / "out").stat().st_size >= 400, 30)
    receiver.terminate()
    assert (tmp_path / "out").read_bytes() == (tmp_path / "in").read_bytes()


# Each server below makes interfaces of its own, whatever ran before.
def test_a_lone_sender_gets_notices_as_error_frames_and_its_refused_frames_counted(tmp_path):
    srv = serve(tmp_path, ["--uncabled"], "--socketcan", "vcan2=0", trace=False)
    errors = candump("-n", "100", "-T", "3000", "vcan2,0~0,#FFFFFFFF")
    run("cangen", "vcan2", "-g", "5", "-n", "40", "-L", "1")
    got = [f for _, f in errors.result()]
    # No node acknowledges: bus errors, then error warning, then error passive at 128 transmit errors.
    assert {"20000088#0000000000000000", "20000004#000C000000000000", "20000204#0030000000008000"} <= set(got)
    srv.wait_line("refused by the adapter")
    log = srv.stop()
    # Every frame read is accounted for: taken by the adapter (or in flight), or refused.
    refused = int(re.findall(r"refused by the adapter \((\d+) in all\)", log)[-1])
    sent = int(re.search(r"vcan2: (\d+) frames? to the adapter", log).group(1))
    assert refused > 0 and refused + sent == 40


def test_kernel_gateway_carries_one_bus_to_the_other(tmp_path):
    srv = serve(tmp_path, ["--uncabled", "-g", "0:100:seq"], "--socketcan", "vcan3=0", "--socketcan", "vcan4=1")
    run("cangw", "-A", "-s", "vcan3", "-d", "vcan4", "-e")
    srv.wait(lambda: len(srv.on_bus("sim0can1")) >= 50)
    assert "channel 0 as the CAN interface vcan3 (a vcan made for it" in srv.stop()
    assert generated([f for _, f in srv.on_bus("sim0can1")], "seq")
    assert not has_link("vcan3") and not has_link("vcan4")  # removed by the server that made them


def test_vxcan_end_in_another_namespace_receives_and_sends(tmp_path):
    run("sh", "-ec", "ip link add vxcan0 type vxcan peer name vxcan1; ip netns add other; ip link set vxcan1 netns other;"
        "ip -n other link set vxcan1 up")
    srv = serve(tmp_path, ["-g", "1:100:seq"], "--socketcan", "vxcan0=0")
    assert generated(run("ip", "netns", "exec", "other", "candump", "-L", "-n", "20", "vxcan1").split()[2::3], "seq")
    run("ip", "netns", "exec", "other", "cansend", "vxcan1", "321#CAFE")
    srv.wait(lambda: any(f == "321#CAFE" for _, f in srv.on_bus()))
    srv.stop()
    assert has_link("vxcan0")  # the user's, kept


def test_an_unplug_leaves_the_interface_and_frames_flow_again(tmp_path):
    srv = serve(tmp_path, ["-g", "1:100:seq", "--unplug", "0:3:5"], "--socketcan", "vcan5=0", trace=False)
    srv.wait_line("stays in place")
    assert has_link("vcan5")
    srv.wait_line("vcan5 carries channel 0 again", 60)
    assert generated(run("candump", "-L", "-n", "20", "vcan5").split()[2::3], "seq")
    srv.stop()


def test_a_missing_interface_without_the_right_to_create_it_names_the_commands():
    p = subprocess.run(["setpriv", "--bounding-set=-net_admin", SIM, "--", VEXLO, "serve", "--no-beacon", "--socketcan",
                        "vcan7=1"], capture_output=True, text=True, timeout=60)
    assert p.returncode == 1 and "'ip link add dev vcan7 type vcan' and 'ip link set up vcan7'" in p.stderr
