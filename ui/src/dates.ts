// The CSV export of the results shown: the archive takes the range as two
// finish stamps "YYYY_MM_DD-HH_MM_SS", both ends included.

export function export_csv_url(from: string, to: string): string {
  const q = (text: string) => encodeURIComponent(text);
  return `/api/1.0/ExportResultsCSV?from=${q(from)}&to=${q(to)}&kind=pcie`;
}

/**
 * The stamps a range export needs: the operator's bounds where given, else
 * the oldest and newest finish the archive holds within the other bound.
 * null while either end is unknown (nothing archived yet).
 */
export function export_range(from: string, to: string, oldest: string | null, newest: string | null): [string, string] | null {
  const a = from || oldest;
  const b = to || newest;
  return a && b ? [a, b] : null;
}
