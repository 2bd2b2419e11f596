// Beside the simulator: answers the host's test with the panel's token and
// runs `hmisvc` with the arguments it is sent, until it is told to stop.
//   node agent.mjs ADDRESS PORT HMISVC TOKEN
import { createServer } from 'node:http';
import { execFile } from 'node:child_process';

const [address, port, hmisvc, token] = process.argv.slice(2);

const server = createServer((req, res) => {
  const answer = (body) => { res.setHeader('Content-Type', 'application/json'); res.end(JSON.stringify(body)); };
  if (req.url === '/token') return answer({ token });
  if (req.url === '/quit') { answer({}); server.close(); return; }
  let body = '';
  req.on('data', (chunk) => { body += chunk; });
  req.on('end', () => {
    const args = JSON.parse(body);
    execFile(hmisvc, args, (error, stdout, stderr) =>
      answer({ code: error ? (error.code ?? 1) : 0, out: stdout + stderr }));
  });
});
server.listen(Number(port), address, () => console.log(`agent: serving on ${address}:${port}`));
