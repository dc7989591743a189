import { describe, expect, it } from 'vitest';
import { result_hash, result_id_of_hash } from './route';

describe('result addresses', () => {
  it.each([
    ['2026_11_25-01_30_00/test_4', '#/results/2026_11_25-01_30_00/test_4'],
    ['run #2/test_5', '#/results/run%20%232/test_5'],
  ])('%s survives the address bar', (id, hash) => {
    expect(result_hash(id)).toBe(hash);
    expect(result_id_of_hash(hash)).toBe(id);
  });

  it.each(['#results', '#/queue', '#/results/%E0%A4%A'])('%s names no result', (hash) => {
    expect(result_id_of_hash(hash)).toBeNull();
  });
});
