// SPDX-License-Identifier: Apache-2.0
// page.mjs - the same in a browser: the page holds a recording in base 64, and gets what is in it as JSON.
import { countRecording } from "./count_recording.mjs";

const text = atob(document.getElementById("recording").textContent);
const bytes = Uint8Array.from(text, (letter) => letter.charCodeAt(0));
const result = document.getElementById("result");
countRecording(bytes).then(
  (counts) => (result.textContent = JSON.stringify(counts)),
  (error) => (result.textContent = String(error)),
);
