"""A shared object's file whose data and pointers are changed: 64-bit little-endian, with relocations that have addends."""
import struct

SYMBOLS, RELOCATIONS = 11, 4  # section types
LOADED = 1                    # segment type


class SharedObject:
    """Addresses are those of the file, as its symbols have them."""

    def __init__(self, content: bytes) -> None:
        self.content = bytearray(content)
        self.symbols: dict[str, int] = {}
        self.relocations: dict[int, int] = {}  # where the file has the one of an address
        self.segments: list[tuple[int, int, int]] = []
        segments, sections = struct.unpack_from("<QQ", content, 0x20)
        segment_count, _, section_count = struct.unpack_from("<HHH", content, 0x38)
        for number in range(segment_count):
            kind, _, offset, address, _, size = struct.unpack_from("<IIQQQQ", content, segments + 56 * number)
            if kind == LOADED:
                self.segments.append((address, offset, size))
        headers = [struct.unpack_from("<IIQQQQII", content, sections + 64 * number) for number in range(section_count)]
        for _, kind, _, _, offset, size, link, _ in headers:
            if kind == SYMBOLS:
                self.read_symbols(offset, size, headers[link][4])
            elif kind == RELOCATIONS:
                self.relocations |= {struct.unpack_from("<Q", content, place)[0]: place for place in range(offset, offset + size, 24)}

    def read_symbols(self, offset: int, size: int, names: int) -> None:
        for place in range(offset, offset + size, 24):
            name, _, _, _, value, _ = struct.unpack_from("<IBBHQQ", self.content, place)
            start = names + name
            self.symbols[self.content[start:self.content.index(0, start)].decode()] = value

    def write(self, address: int, data: bytes) -> None:
        start, offset, size = next(segment for segment in self.segments if segment[0] <= address < sum(segment[::2]))
        assert address + len(data) <= start + size
        self.content[offset + address - start:offset + address - start + len(data)] = data

    def point(self, address: int, target: int) -> None:
        """Makes the pointer at that address lead there."""
        struct.pack_into("<Q", self.content, self.relocations[address] + 16, target)

    def clear(self, address: int) -> None:
        """Makes it a null pointer: its relocation does nothing."""
        struct.pack_into("<QQ", self.content, self.relocations[address] + 8, 0, 0)
        self.write(address, bytes(8))
