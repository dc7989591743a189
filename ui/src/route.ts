// Addresses of single results inside the page: "#/results/<ResultId>", the
// id as the archive gives it ("<run folder>/test_<id>"), each part
// percent-encoded so any id survives the trip through the address bar.

export function result_hash(resultId: string): string {
  return `#/results/${resultId.split('/').map(encodeURIComponent).join('/')}`;
}

/** The ResultId a hash names, or null when it names none. */
export function result_id_of_hash(hash: string): string | null {
  const m = /^#\/?results\/(.+)$/.exec(hash);
  if (!m) return null;
  try {
    return decodeURIComponent(m[1]);
  } catch {
    return null;
  }
}
