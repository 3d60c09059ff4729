// Fuse.js side of the matcher benchmark: same names, same patterns, options
// matching ours (threshold 0.6, location 0, distance 100, case-insensitive,
// scores and match ranges reported). Prints "median_ms <ms> matches <count>".
'use strict';
const fs = require('fs');
const path = require('path');
const [dir, repsText, modulePath] = process.argv.slice(2);
const Fuse = require(modulePath);
const lines = (file) => fs.readFileSync(path.join(dir, file), 'utf8').split('\n').filter((l) => l.length > 0);
const names = lines('names.txt');
const patterns = lines('patterns.txt');
const fuse = new Fuse(names, {
  threshold: 0.6,
  location: 0,
  distance: 100,
  isCaseSensitive: false,
  includeScore: true,
  includeMatches: true,
  minMatchCharLength: 1,
});
const repetitions = Math.max(1, parseInt(repsText, 10));
const times = [];
let matches = 0;
for (let r = 0; r < repetitions + 1; r++) {  // the first round lets the JIT warm up
  const begin = process.hrtime.bigint();
  matches = 0;
  for (const pattern of patterns) matches += fuse.search(pattern).length;
  if (r > 0) times.push(Number(process.hrtime.bigint() - begin) / 1e6);
}
times.sort((a, b) => a - b);
console.log(`median_ms ${times[Math.floor(times.length / 2)].toFixed(3)} matches ${matches} version ${Fuse.version}`);
