// PCI addresses as people type them: the service writes "0:3:0.0" (hex, no
// padding), lspci and the kernel "0000:03:00.0", and a bus:device.function
// without a segment is common too. All of them name the same function.

export interface PciAddress {
  segment: number | null;
  bus: number;
  device: number;
  fn: number;
}

const ADDRESS = /^(?:([0-9a-f]{1,4}):)?([0-9a-f]{1,2}):([0-9a-f]{1,2})\.([0-7])$/i;

export function parse_address(text: string): PciAddress | null {
  const m = ADDRESS.exec(text.trim());
  if (!m) return null;
  const device = parseInt(m[3], 16);
  if (device > 0x1f) return null;
  return { segment: m[1] === undefined ? null : parseInt(m[1], 16), bus: parseInt(m[2], 16), device, fn: Number(m[4]) };
}

/** The kernel's form, "0000:03:00.0" (segment 0 when none is given), or null. */
export function long_address(text: string): string | null {
  const a = parse_address(text);
  if (!a) return null;
  const hex = (n: number, width: number) => n.toString(16).padStart(width, '0');
  return `${hex(a.segment ?? 0, 4)}:${hex(a.bus, 2)}:${hex(a.device, 2)}.${a.fn}`;
}

/**
 * Whether a device row matches every word of a filter. A word that is a whole
 * address matches the function it names in any spelling (a word without a
 * segment matches that bus:device.function in any segment); other words match
 * as parts of a cell or of the address's long form, so "0000:03" finds
 * "0:3:0.0" while it is being typed.
 */
export function row_matches(filter: string, sbdf: string, cells: readonly string[]): boolean {
  const own = parse_address(sbdf);
  const texts = [...cells, long_address(sbdf) ?? ''].map((c) => c.toLowerCase());
  return filter
    .toLowerCase()
    .split(/\s+/)
    .filter(Boolean)
    .every((word) => {
      const wanted = parse_address(word);
      if (wanted && own) {
        return (
          (wanted.segment === null || wanted.segment === (own.segment ?? 0)) &&
          wanted.bus === own.bus &&
          wanted.device === own.device &&
          wanted.fn === own.fn
        );
      }
      return texts.some((t) => t.includes(word));
    });
}

/**
 * The archive's form "0:3:0.0" (hex, no padding) of an address in any
 * spelling; other text is kept as typed.
 */
export function archive_sbdf(text: string): string {
  const a = parse_address(text);
  if (!a) return text.trim();
  return `${(a.segment ?? 0).toString(16)}:${a.bus.toString(16)}:${a.device.toString(16)}.${a.fn}`;
}
