#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets from the real captures.

usage: seed.py CAPTURES_DIR OUT_DIR
"""
import os
import re
import sys

captures, out = sys.argv[1], sys.argv[2]


def read(path, mode='rb'):
    with open(os.path.join(captures, path), mode) as f:
        return f.read()


def put(target, name, data):
    d = os.path.join(out, target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), 'wb') as f:
        f.write(data if isinstance(data, bytes) else data.encode('latin-1'))


def lines(path):
    return read(path).decode('latin-1').splitlines()


def escaped(text):
    # FuzzedDataProvider.ConsumeRandomLengthString: "\\\\" is one backslash,
    # a backslash before anything else ends the string.
    return text.replace('\\', '\\\\') + '\\x'


for machine in ('lab-server', 'virtio-vm'):
    n, m, v = (read(f'{machine}/lspci-{p}.txt').decode('latin-1') for p in 'nmv')
    for i, line in enumerate(n.splitlines()):
        put('parse_n_fuzz', f'{machine}-{i}', line)
        put('extract_bus_dev_fn_fuzz', f'{machine}-{i}', line.split(' ')[0])
        for j, word in enumerate(line.replace(':', ' ').split()[1:]):
            put('from_hex_fuzz', f'{machine}-{i}-{j}', word)
    for i, line in enumerate(m.splitlines()):
        put('parse_m_fuzz', f'{machine}-{i}', line)
    for i, line in enumerate(v.splitlines()):
        if 'Bus: ' in line:
            put('parse_bus_details_fuzz', f'{machine}-{i}', line)
        if 'IRQ' in line:
            put('parse_irq_fuzz', f'{machine}-{i}', line)
        if 'I/O ports at' in line:
            put('parse_io_ports_fuzz', f'{machine}-{i}', line)
    put('inventory_fuzz', machine, escaped(n) + escaped(m) + v)

put('parse_n_fuzz', 'old-shape', '00:02.0 Class 0300: 8086:2572 (rev 02)')
put('parse_n_fuzz', 'domain', '0000:00:1f.2 Class 0101: 8086:27c0 (rev 01)')
put('extract_bus_dev_fn_fuzz', 'domain', '0000:0a:03.1')
put('inventory_fuzz', 'pcilib', escaped('pcilib: x\n00:00.0 0600: 8086:1237\n') +
    escaped('pcilib: x\n00:00.0 "Host bridge" "V" "D"\n') + 'pcilib: x\nheader\n\tFlags: IRQ 5\n')
put('inventory_fuzz', 'missing', escaped('sh: /sbin/lspci: command not found\n') * 2)

area = read('lab-server/f-segment.bin')
put('pir_fuzz', 'lab-server', bytes([0, 2]) + area)
put('pir_fuzz', 'lab-server-table', bytes([1, 6]) + area[0x5C80:0x5C80 + 128])

# The modem target's layout (FuzzedDataProvider): the reply pieces as escaped
# strings from the front, the number of pieces of each command as one byte
# each from the back, the first command's last.
def modem_seed(replies):
    front = ''.join(escaped(piece) for pieces in replies for piece in pieces)
    return front.encode('latin-1') + bytes(len(pieces) for pieces in reversed(replies))


put('modem_reply_fuzz', 'lab-server', modem_seed([
    ['ATZ\r\r\nOK\r\n'], ['AT&K3\r\r\nOK\r\n'], ['ATQ0E0V1&C1&D2\r\r\nOK\r\n'],
    ['\r\nLabModem 56K V.92 External\r\n', '\r\nOK\r\n']]))
put('modem_reply_fuzz', 'silent', modem_seed([[], [], [], []]))
put('modem_reply_fuzz', 'error', modem_seed([['OK'], [], [], ['\r\nERROR\r\n']]))
put('modem_reply_fuzz', 'flood', modem_seed([['x' * 300] * 4, [], [], ['y' * 99 + 'OK']]))

smbios = []
for d in sorted(os.listdir(os.path.join(captures, 'smbios'))):
    smbios.append((d, read(f'smbios/{d}/dump.bin')))
# The dumps' layout: the entry point padded to 0x20 bytes, the table behind.
smbios.append(('lab-server', read('lab-server/smbios_entry_point.bin').ljust(0x20, b'\0') + read('lab-server/DMI.bin')))
for name, data in smbios:
    put('smbios_fuzz', name, data)
    # Byte 0x1F, behind every entry point, picks the route: 1 is /dev/mem
    # (entry point at 0xF0100), 2 both sysfs and /dev/mem, 3 neither.
    for route in (1, 2, 3):
        put('smbios_fuzz', f'{name}-route{route}', data[:0x1F] + bytes([route]) + data[0x20:])

# SCSI. The sense target's layout: status, sb_len_wr, the number n of sense
# bytes, the n sense bytes, then the data of the reply.
def fixed_sense(key, code, qualifier=0):
    return bytes([0x70, 0, key, 0, 0, 0, 0, 10, 0, 0, 0, 0, code, qualifier, 0, 0, 0, 0])


def descriptor_sense(key, code, qualifier=0):
    return bytes([0x72, key, code, qualifier, 0, 0, 0, 0])


def sense_seed(status, written, sense, data=b''):
    return bytes([status, written, len(sense)]) + sense + data


put('scsi_sense_fuzz', 'good-2880-blocks', sense_seed(0, 0, b'', bytes([0, 0, 0x0B, 0x3F, 0, 0, 2, 0])))
put('scsi_sense_fuzz', 'no-medium', sense_seed(2, 18, fixed_sense(2, 0x3A)))
put('scsi_sense_fuzz', 'medium-changed', sense_seed(2, 18, fixed_sense(6, 0x28)))
put('scsi_sense_fuzz', 'incompatible', sense_seed(2, 18, fixed_sense(3, 0x30)))
put('scsi_sense_fuzz', 'illegal-request-descriptor', sense_seed(2, 8, descriptor_sense(5, 0x24)))
put('scsi_sense_fuzz', 'twelve-bytes', sense_seed(2, 12, fixed_sense(2, 0x3A)))

# The INQUIRY data and host adapter texts of the lab server's sg nodes.
for line in lines('lab-server/ioctls.txt'):
    m = re.match(r'/dev/(sg\d+): SG_IO INQUIRY type=(\d+) rmb=(\d) vendor="(.*)" product="(.*)" rev="(.*)"', line)
    if m:
        node, kind, rmb, vendor, product, rev = m.groups()
        data = bytes([int(kind), 0x80 if rmb == '1' else 0, 5, 2, 31, 0, 0, 0])
        data += vendor.ljust(8)[:8].encode() + product.ljust(16)[:16].encode() + rev.ljust(4)[:4].encode()
        put('scsi_inquiry_fuzz', f'lab-server-{node}', data)
    m = re.match(r'/dev/(sg\d+): SCSI_IOCTL_PROBE_HOST ret=1 "(.*)"', line)
    if m:
        put('scsi_inquiry_fuzz', f'lab-server-{m.group(1)}-host', m.group(2))
put('scsi_inquiry_fuzz', 'usb-host', 'SCSI emulation for USB Mass Storage devices')
put('scsi_inquiry_fuzz', 'ide-host', 'ide-scsi IDE emulation')
