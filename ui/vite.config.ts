import { defineConfig } from 'vitest/config';

// The service serves "/" from UI/index.html and everything else only under
// "/static/", so every emitted asset goes there. The output folder is given
// on the command line by the CMake build (--outDir).
export default defineConfig({
  base: '/',
  esbuild: { jsx: 'automatic', jsxImportSource: 'preact' },
  build: {
    assetsDir: 'static',
    emptyOutDir: true,
    sourcemap: false,
    chunkSizeWarningLimit: 400,
    // Inlined assets would be data: URLs; keep them as files under /static/.
    assetsInlineLimit: 0,
  },
  test: {
    include: ['src/**/*.test.ts'],
    environment: 'node',
  },
});
