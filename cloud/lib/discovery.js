// The discovery endpoint: tells a device its cloud configuration, encrypted so that only that device can read it.

import { constants, publicEncrypt } from 'node:crypto';
import { createServer } from 'node:http';

import { listen, LOOPBACK, logRequests, pathOf } from './server.js';

const DEVICES_PATH = '/devices/';

// RSA-OAEP with SHA-1 takes two hashes and two bytes out of the 256 of a 2048-bit key.
const PLAINTEXT_BLOCK_BYTES = 256 - 2 * 20 - 2;

export async function startDiscovery({ device, wellKnownUrl, port, log }) {
  const answer = (request, response) => {
    if (request.method !== 'GET') {
      return sendJson(response, 405, { error: 'method not allowed' });
    }
    if (pathOf(request) !== DEVICES_PATH + device.id) {
      return sendJson(response, 404, { error: 'unknown device' });
    }
    return sendJson(response, 200, { data: encryptFor(device, deviceConfiguration(device, wellKnownUrl)) });
  };
  const listener = await listen(createServer(logRequests('discovery', log, answer)), port);
  return { ...listener, url: `http://${LOOPBACK}:${listener.port}${DEVICES_PATH}` };
}

// Only veloIdConfiguration leads anywhere; the rest is there to look like a real cloud's answer.
const deviceConfiguration = (device, wellKnownUrl) => ({
  config: {
    endpoints: {
      veloIdConfiguration: wellKnownUrl,
      telemetry: 'https://telemetry.cloud.example/v2/messages',
      update: 'https://update.cloud.example/v1/devices',
      time: 'https://time.cloud.example/v1/now',
    },
    telemetry: { intervalSeconds: 300, batchSize: 50, compression: 'gzip' },
    update: { channel: 'stable', window: { from: '02:00', to: '04:30' }, automatic: true },
    certificateRenewalDays: 30,
  },
  device: { id: device.id, group: 'demo', site: 'Köln, Gebäude 7', tags: ['local', 'trial'], owner: null },
});

/** JSON text in UTF-8, cut into blocks, each block encrypted, all of them joined in base64 without line breaks. */
function encryptFor(device, configuration) {
  const plaintext = Buffer.from(JSON.stringify(configuration), 'utf8');
  const key = { key: device.publicKey, padding: constants.RSA_PKCS1_OAEP_PADDING, oaepHash: 'sha1' };
  const blocks = [];
  for (let start = 0; start < plaintext.length; start += PLAINTEXT_BLOCK_BYTES) {
    blocks.push(publicEncrypt(key, plaintext.subarray(start, start + PLAINTEXT_BLOCK_BYTES)));
  }
  return Buffer.concat(blocks).toString('base64');
}

function sendJson(response, status, value) {
  const body = JSON.stringify(value);
  response.writeHead(status, {
    'Content-Type': 'application/json; charset=utf-8',
    'Content-Length': Buffer.byteLength(body),
  });
  response.end(body);
}
