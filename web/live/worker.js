// Runs the library apart from the page, which stays awake. A run that is no longer wanted ends with its worker.

let loading;

onmessage = async ({data: {folder, name, grid, heights, settings}}) => {
  try {
    loading ??= Library.load(folder, percent => postMessage({percent}));
    const library = await loading;
    const start = performance.now();
    const result = computations[name].run(library, grid, heights, settings);
    postMessage({result, seconds: (performance.now() - start) / 1000, threads: library.threads});
  } catch (error) {
    postMessage({error: error.message});
  }
};
