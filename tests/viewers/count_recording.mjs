// SPDX-License-Identifier: Apache-2.0
// count_recording.mjs - what a viewer's reader finds in a file: messages by topic, frames and boxes. Every CRC is
// checked, and every message is decoded by the definition that the file carries. In node it prints a line of JSON for
// each file that the command line names; in a browser the page holds a recording in base 64, and gets the line.
import { McapIndexedReader, McapStreamReader } from "@mcap/core";
import { parse } from "@foxglove/rosmsg";
import { MessageReader } from "@foxglove/rosmsg-serialization";

const POINTS_OF_A_BOX = 8;

class Counter {
  schemas = new Map();
  channels = new Map();
  counts = { messages: 0, topics: {}, frames: 0, boxes: 0, annotated: 0, pictures: 0 };

  take(record) {
    if (record.type === "Schema") {
      const definition = parse(new TextDecoder().decode(record.data));
      this.schemas.set(record.id, { name: record.name, reader: new MessageReader(definition) });
    } else if (record.type === "Channel") {
      this.channels.set(record.id, record);
    } else if (record.type === "Message") {
      this.takeMessage(record);
    }
  }

  takeMessage(record) {
    const channel = this.channels.get(record.channelId);
    const { name, reader } = this.schemas.get(channel.schemaId);
    const message = reader.readMessage(record.data);
    this.counts.messages += 1;
    this.counts.topics[channel.topic] = (this.counts.topics[channel.topic] ?? 0) + 1;
    if (name === "olvex_det/Frame") {
      this.counts.frames += 1;
      this.counts.boxes += message.boxes.length + message.large_boxes.length;
    } else if (name === "foxglove_msgs/ImageAnnotations") {
      this.counts.annotated += message.texts.length;
      for (const lines of message.points) {
        if (lines.points.length % POINTS_OF_A_BOX !== 0) {
          throw new Error("the lines are no boxes");
        }
      }
      if (message.points[0].points.length !== POINTS_OF_A_BOX * message.texts.length) {
        throw new Error("there are not as many boxes as texts");
      }
    } else if (name === "foxglove_msgs/CompressedImage") {
      this.counts.pictures += 1;
    }
  }
}

async function countByIndex(bytes) {
  const readable = {
    size: async () => BigInt(bytes.length),
    read: async (offset, size) => bytes.slice(Number(offset), Number(offset + size)),
  };
  const reader = await McapIndexedReader.Initialize({ readable });
  let messages = 0;
  for await (const _ of reader.readMessages({ validateCrcs: true })) {
    messages += 1;
  }
  if (reader.statistics.messageCount !== BigInt(messages)) {
    throw new Error(`the statistics count ${reader.statistics.messageCount} messages, and the index ${messages}`);
  }
  return messages;
}

// is_closed: the file has an end; indexed: messages by the index, null without a summary.
async function countRecording(bytes) {
  const reader = new McapStreamReader({ validateCrcs: true });
  const counter = new Counter();
  reader.append(bytes);
  let hasSummary = false;
  for (let record; (record = reader.nextRecord()); ) {
    counter.take(record);
    hasSummary ||= record.type === "Statistics";
  }
  return { ...counter.counts, is_closed: reader.done(), indexed: hasSummary ? await countByIndex(bytes) : null };
}

async function countFiles(paths) {
  const { readFile } = await import("node:fs/promises");
  for (const path of paths) {
    console.log(JSON.stringify(await countRecording(new Uint8Array(await readFile(path)))));
  }
}

async function countInPage(page) {
  const text = atob(page.getElementById("recording").textContent);
  const counts = countRecording(Uint8Array.from(text, (letter) => letter.charCodeAt(0)));
  page.getElementById("result").textContent = await counts.then(JSON.stringify, String);
}

if (globalThis.document) {
  countInPage(document);
} else {
  countFiles(process.argv.slice(2));
}
