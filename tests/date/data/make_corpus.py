#!/usr/bin/env python3
"""Writes the crafted TZif files of corpus/ (run from this directory)."""
import struct

def tzif(times, types, ttinfos, chars=b"LMT\0", magic=True, counts=None):
    timecnt, typecnt, charcnt = counts or (len(times), len(ttinfos), len(chars))
    head = (b"TZif2" + bytes(15) + struct.pack(">III", 0, 0, 0)) if magic \
        else (bytes(16) + struct.pack(">III", 0, 0, 0))
    body = struct.pack(">III", timecnt, typecnt, charcnt)
    body += b"".join(struct.pack(">i", t) for t in times) + bytes(types)
    body += b"".join(struct.pack(">iBB", off, dst, 0) for off, dst in ttinfos)
    return head + body + chars

NY = ([1268550000, 1289109600, 1299999600, 1320559200], [1, 0, 1, 0],
      [(-18000, 0), (-14400, 1)])
files = {
    "ny_2010_2011.tzif": tzif(*NY),
    "ny_no_magic.tzif": tzif(*NY, magic=False),
    "truncated_by_one.tzif": tzif(*NY)[:-1],
    "header_only.tzif": tzif(*NY)[:44],
    "type_index_past_typecnt.tzif": tzif(NY[0], [1, 0, 2, 255], NY[2]),
    "timecnt_near_2_32.tzif": tzif(*NY, counts=(0xFFFFFFFF, 2, 4)),
    "sum_wraps_32_bits.tzif": tzif(*NY, counts=(0x33333334, 2, 4)),
    "charcnt_max.tzif": tzif(*NY, counts=(4, 2, 0xFFFFFFFF)),
    "extreme_offsets.tzif": tzif([2**31 - 1, -2**31, 0], [0, 1, 0],
                                 [(-2**31, 0), (2**31 - 1, 1)]),
    "empty.tzif": b"",
    "three_bytes.tzif": b"TZi",
    # Shapes of the record building.
    "before_1970_west.tzif": tzif([-2000000000, -1000000000, -500000000, -1], [1, 0, 1, 0], NY[2]),
    "before_1970_east.tzif": tzif([-2000000000, -5], [0, 0], [(3600, 0), (7200, 1)]),
    "third_change.tzif": tzif([1268550000, 1289109600, 1291500000, 1308000000], NY[1], NY[2]),
    "single_standard.tzif": tzif([-764200800], [0], [(19800, 0)]),
    "southern.tzif": tzif([1223136000, 1238860800, 1254585600, 1270310400, 1286035200],
                          [1, 0, 1, 0, 1], [(36000, 0), (39600, 1)]),
    "no_types.tzif": tzif(*NY, counts=(4, 0, 0xFFFFFFFF)),
    "no_times.tzif": tzif([], [], [(0, 0)]),
    "years_2000_2005.tzif": tzif([952041600, 1104537600], [0, 1], [(0, 0), (3600, 0)]),
    # The last pair on Tuesdays, and the bytes after the times read as a time
    # (0x01000000) on a Tuesday too: no successor may be read there.
    "last_pair_tuesdays.tzif": tzif([5277600, 25840800], [1, 0], [(0, 0), (3600, 1)]),
    # +1 h in 2010 and +2 h from 2011, for conversions whose legs cross New Year.
    "plus1_2010_plus2_2011.tzif": tzif([1262304000, 1293840000], [0, 1], [(3600, 0), (7200, 0)]),
}
for name, data in files.items():
    with open("corpus/" + name, "wb") as f:
        f.write(data)
