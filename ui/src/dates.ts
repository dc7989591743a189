// The archive walks its runs from "start" to "end" in the order of its own
// date list, so a range picked backwards must be turned round before it is sent.

/** [start, end] in list order, or null when either date is not in the list. */
export function ordered_range(dateList: readonly string[], a: string, b: string): [string, string] | null {
  const i = dateList.indexOf(a);
  const j = dateList.indexOf(b);
  if (i < 0 || j < 0) return null;
  return i <= j ? [a, b] : [b, a];
}

export function export_csv_url(start: string, end: string): string {
  // %20 rather than '+' for blanks: both decode the same under the URL
  // standard, but only %20 is read as a blank by every query parser.
  const q = (text: string) => encodeURIComponent(text);
  return `/api/1.0/ExportResultsCSV?start=${q(start)}&end=${q(end)}&kind=pcie`;
}
