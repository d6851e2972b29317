"""The adapter's acceptance filter for a set of python-can filters.

The controller's single filter (code and mask, mask bit 1 = don't care) reads a standard frame's
identifier from bits 31-21 and an extended frame's from bits 31-3, whatever the frame's kind. So it
can only stand for filters that all name one kind of frame ("extended": True or False); it then
keeps every identifier bit that all of them require with the same value. That lets through a
superset of what the filters match (and frames of the other kind whose bits happen to fit), so the
bus checks every frame in software as well.
"""

ACCEPT_ALL = (0x00000000, 0xFFFFFFFF)


def acceptance(filters):
    """(code, mask) for the adapter: ACCEPT_ALL when the filters cannot narrow it.

    [{"can_id": 0x123, "can_mask": 0x7FF, "extended": False}] -> (0x24600000, 0x001FFFFF)
    """
    if not filters or any("extended" not in f for f in filters):
        return ACCEPT_ALL
    kinds = {bool(f["extended"]) for f in filters}
    if len(kinds) != 1:
        return ACCEPT_ALL
    ext = kinds.pop()
    width, shift = (29, 3) if ext else (11, 21)
    full = (1 << width) - 1
    care = full
    for f in filters:
        care &= f["can_mask"] & full
    first = filters[0]["can_id"] & full
    for f in filters[1:]:
        care &= ~(first ^ (f["can_id"] & full))
    code = (first & care) << shift
    mask = ~(care << shift) & 0xFFFFFFFF
    return code, mask
