"""A small reader of PE32+ images: the headers, sections, imports and COFF symbols
that the checks of the kernel driver need, and the image checksum.

Every offset is validated against the file size: a truncated or damaged file raises
PeFormatError with what was being read, never an IndexError or struct.error.
"""
import struct

PE32_MAGIC = 0x10B
PE32_PLUS_MAGIC = 0x20B
MACHINE_AMD64 = 0x8664
SUBSYSTEM_NATIVE = 1

DLLCHARACTERISTICS_WDM_DRIVER = 0x2000

SCN_CNT_CODE = 0x00000020
SCN_CNT_INITIALIZED_DATA = 0x00000040
SCN_MEM_EXECUTE = 0x20000000
SCN_MEM_READ = 0x40000000
SCN_MEM_WRITE = 0x80000000

DIR_IMPORT = 1
DIR_BASERELOC = 5
DIR_TLS = 9
DIR_DELAY_IMPORT = 13

# Field offsets inside the PE32+ optional header.
OPT_MAGIC = 0
OPT_ENTRY_POINT = 16
OPT_IMAGE_BASE = 24
OPT_CHECKSUM = 64
OPT_SUBSYSTEM = 68
OPT_DLL_CHARACTERISTICS = 70
OPT_NUMBER_OF_DIRS = 108
OPT_DATA_DIRECTORIES = 112

FILE_HEADER_SIZE = 20
SECTION_HEADER_SIZE = 40
SECTION_CHARACTERISTICS = 36  # offset inside a section header
SYMBOL_SIZE = 18


class PeFormatError(Exception):
    pass


class Section:
    def __init__(self, header_offset, name, virtual_size, virtual_address, raw_size,
                 raw_offset, characteristics):
        self.header_offset = header_offset
        self.name = name
        self.virtual_size = virtual_size
        self.virtual_address = virtual_address
        self.raw_size = raw_size
        self.raw_offset = raw_offset
        self.characteristics = characteristics

    @property
    def writable(self):
        return bool(self.characteristics & SCN_MEM_WRITE)

    @property
    def executable(self):
        return bool(self.characteristics & (SCN_MEM_EXECUTE | SCN_CNT_CODE))

    @property
    def readable(self):
        return bool(self.characteristics & SCN_MEM_READ)

    @property
    def initialized_data(self):
        return bool(self.characteristics & SCN_CNT_INITIALIZED_DATA)

    def contains_rva(self, rva):
        return self.virtual_address <= rva < self.virtual_address + max(
            self.virtual_size, self.raw_size)

    def describe_access(self):
        return "".join((
            "R" if self.readable else "-",
            "W" if self.writable else "-",
            "X" if self.executable else "-"))


class Import:
    def __init__(self, dll, functions):
        self.dll = dll
        self.functions = functions


class PeImage:
    """Headers are parsed on construction; imports and symbols on demand."""

    def __init__(self, data):
        self.data = bytes(data)
        self._parse_headers()

    # ------------------------------------------------------------ raw access
    def _unpack(self, fmt, offset, what):
        size = struct.calcsize(fmt)
        if offset < 0 or offset + size > len(self.data):
            raise PeFormatError("file too short for %s (needs %d bytes at offset 0x%X, "
                                "file has %d)" % (what, size, offset, len(self.data)))
        return struct.unpack_from(fmt, self.data, offset)

    def _cstring_at(self, offset, what, limit=512):
        if offset < 0 or offset >= len(self.data):
            raise PeFormatError("%s at offset 0x%X lies outside the file" % (what, offset))
        end = self.data.find(b"\0", offset, offset + limit)
        if end < 0:
            raise PeFormatError("%s at offset 0x%X is not NUL-terminated" % (what, offset))
        return self.data[offset:end].decode("latin-1")

    # ------------------------------------------------------------ headers
    def _parse_headers(self):
        (mz,) = self._unpack("<2s", 0, "the DOS header")
        if mz != b"MZ":
            raise PeFormatError("no MZ signature at offset 0")
        (pe_offset,) = self._unpack("<I", 0x3C, "the DOS header's e_lfanew")
        (signature,) = self._unpack("<4s", pe_offset, "the PE signature")
        if signature != b"PE\0\0":
            raise PeFormatError("no PE signature at offset 0x%X" % pe_offset)
        file_header = pe_offset + 4
        (self.machine, self.number_of_sections, _timestamp, self.symbol_table_offset,
         self.number_of_symbols, optional_size, self.file_characteristics) = self._unpack(
             "<HHIIIHH", file_header, "the COFF file header")
        self.optional_header_offset = file_header + FILE_HEADER_SIZE
        (self.magic,) = self._unpack("<H", self.optional_header_offset,
                                     "the optional header magic")
        self._parse_string_table()
        self._parse_sections(self.optional_header_offset + optional_size)
        if self.magic != PE32_PLUS_MAGIC:
            # Anything below depends on the PE32+ layout; the checks report the magic.
            self.entry_point = self.image_base = self.checksum = None
            self.subsystem = self.dll_characteristics = None
            self.data_directories = []
            return
        opt = self.optional_header_offset
        (self.entry_point,) = self._unpack("<I", opt + OPT_ENTRY_POINT, "AddressOfEntryPoint")
        (self.image_base,) = self._unpack("<Q", opt + OPT_IMAGE_BASE, "ImageBase")
        (self.checksum,) = self._unpack("<I", opt + OPT_CHECKSUM, "CheckSum")
        (self.subsystem, self.dll_characteristics) = self._unpack(
            "<HH", opt + OPT_SUBSYSTEM, "Subsystem")
        (count,) = self._unpack("<I", opt + OPT_NUMBER_OF_DIRS, "NumberOfRvaAndSizes")
        count = min(count, (optional_size - OPT_DATA_DIRECTORIES) // 8)
        self.data_directories = [
            self._unpack("<II", opt + OPT_DATA_DIRECTORIES + 8 * i, "data directory %d" % i)
            for i in range(max(count, 0))]

    def _parse_string_table(self):
        self.string_table = b""
        if not self.symbol_table_offset:
            return
        start = self.symbol_table_offset + self.number_of_symbols * SYMBOL_SIZE
        (size,) = self._unpack("<I", start, "the COFF string table size")
        if start + size > len(self.data):
            raise PeFormatError("COFF string table at 0x%X runs past the end of the file"
                                % start)
        self.string_table = self.data[start:start + size]

    def _string_table_entry(self, offset):
        end = self.string_table.find(b"\0", offset)
        if offset < 4 or end < 0:
            raise PeFormatError("string table offset %d is invalid" % offset)
        return self.string_table[offset:end].decode("latin-1")

    def _parse_sections(self, offset):
        self.sections = []
        for i in range(self.number_of_sections):
            header = offset + i * SECTION_HEADER_SIZE
            (raw_name, virtual_size, virtual_address, raw_size, raw_offset, _relocs,
             _lines, _nrelocs, _nlines, characteristics) = self._unpack(
                 "<8sIIIIIIHHI", header, "section header %d" % i)
            name = raw_name.rstrip(b"\0").decode("latin-1")
            if name.startswith("/") and name[1:].isdigit() and self.string_table:
                name = self._string_table_entry(int(name[1:]))
            self.sections.append(Section(header, name, virtual_size, virtual_address,
                                         raw_size, raw_offset, characteristics))

    # ------------------------------------------------------------ addresses
    def section_of_rva(self, rva):
        for section in self.sections:
            if section.contains_rva(rva):
                return section
        return None

    def rva_to_offset(self, rva, what):
        section = self.section_of_rva(rva)
        if section is None or rva - section.virtual_address >= section.raw_size:
            raise PeFormatError("%s at RVA 0x%X is not backed by file data" % (what, rva))
        return section.raw_offset + rva - section.virtual_address

    def section_data(self, section):
        end = section.raw_offset + section.raw_size
        if end > len(self.data):
            raise PeFormatError("section %s runs past the end of the file" % section.name)
        return self.data[section.raw_offset:end]

    def read(self, rva, size, what):
        offset = self.rva_to_offset(rva, what)
        if offset + size > len(self.data):
            raise PeFormatError("%s at RVA 0x%X runs past the end of the file" % (what, rva))
        return self.data[offset:offset + size]

    def directory(self, index):
        if index < len(self.data_directories):
            return self.data_directories[index]
        return (0, 0)

    # ------------------------------------------------------------ imports
    def imports(self):
        rva, size = self.directory(DIR_IMPORT)
        result = []
        if not rva or not size:
            return result
        offset = self.rva_to_offset(rva, "the import directory")
        while True:
            (lookup_rva, _stamp, _chain, name_rva, address_rva) = self._unpack(
                "<IIIII", offset, "an import descriptor")
            if not (lookup_rva or name_rva or address_rva):
                return result
            dll = self._cstring_at(self.rva_to_offset(name_rva, "an import DLL name"),
                                   "an import DLL name")
            thunks = self.rva_to_offset(lookup_rva or address_rva, "the import lookup table")
            result.append(Import(dll, self._imported_functions(thunks, dll)))
            offset += 20

    def _imported_functions(self, offset, dll):
        functions = []
        while True:
            (thunk,) = self._unpack("<Q", offset, "an import thunk of " + dll)
            if not thunk:
                return functions
            if thunk & (1 << 63):
                functions.append("#%d" % (thunk & 0xFFFF))
            else:
                name_offset = self.rva_to_offset(thunk & 0x7FFFFFFF, "an import name") + 2
                functions.append(self._cstring_at(name_offset, "an import name"))
            offset += 8

    # ------------------------------------------------------------ symbols
    def symbol_rva(self, wanted):
        """RVA of the COFF symbol `wanted`, None if the image has no such symbol."""
        index = 0
        while index < self.number_of_symbols:
            offset = self.symbol_table_offset + index * SYMBOL_SIZE
            (raw_name, value, section_number, _type, _storage, aux) = self._unpack(
                "<8sIhHBB", offset, "COFF symbol %d" % index)
            if raw_name[:4] == b"\0\0\0\0":
                name = self._string_table_entry(struct.unpack_from("<I", raw_name, 4)[0])
            else:
                name = raw_name.rstrip(b"\0").decode("latin-1")
            if name == wanted and 0 < section_number <= len(self.sections):
                return self.sections[section_number - 1].virtual_address + value
            index += 1 + aux
        return None

    # ------------------------------------------------------------ checksum
    def checksum_field_offset(self):
        return self.optional_header_offset + OPT_CHECKSUM

    def compute_checksum(self):
        """The loader's image checksum: 16-bit one's-complement style sum of the file
        with the CheckSum field taken as zero, plus the file length."""
        field = self.checksum_field_offset()
        data = self.data[:field] + b"\0\0\0\0" + self.data[field + 4:]
        if len(data) % 2:
            data += b"\0"
        total = sum(struct.unpack("<%dH" % (len(data) // 2), data))
        while total >> 16:
            total = (total & 0xFFFF) + (total >> 16)
        return (total + len(self.data)) & 0xFFFFFFFF
