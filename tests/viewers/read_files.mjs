// SPDX-License-Identifier: Apache-2.0
// read_files.mjs - prints, for each file named on the command line, one line of JSON with what is in it.
import { readFile } from "node:fs/promises";
import { countRecording } from "./count_recording.mjs";

for (const path of process.argv.slice(2)) {
  console.log(JSON.stringify(await countRecording(new Uint8Array(await readFile(path)))));
}
