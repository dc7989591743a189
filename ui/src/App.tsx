// The page: header with version and connection, the screens chosen by the
// address's hash, and the live queue fed by the WebSocket.
import { useEffect, useRef, useState } from 'preact/hooks';
import { get_pcie_devices, get_version } from './api';
import { parse_push } from './push';
import { merge_finished, steady_queue, type FinishedTest } from './progress';
import { LiveSocket, socket_url, type SocketState } from './socket';
import type { PCIeDevice, QueuedTest } from './types';
import { Header, type Screen } from './views/Header';
import { DevicesView } from './views/DevicesView';
import { NewTestView } from './views/NewTestView';
import { HvlView } from './views/HvlView';
import { EyeView } from './views/EyeView';
import { QueueView } from './views/QueueView';
import { ResultsView } from './views/ResultsView';
import { PciViewerView } from './views/PciViewerView';
import { AspmView } from './views/AspmView';
import { CountersView } from './views/CountersView';
import { result_id_of_hash } from './route';
import { LinkPushHub } from './link_push';
import { PortStatusView } from './views/PortStatusView';
import { LinkControlView } from './views/LinkControlView';

const SCREENS: Screen[] = ['devices', 'new', 'hvl', 'eye', 'queue', 'results', 'ports', 'links', 'pci', 'aspm', 'counters'];

function screen_from_hash(): Screen {
  // "#/results/<ResultId>" opens the results screen on one result.
  const name = location.hash.replace(/^#\/?/, '').split(/[?/]/)[0];
  return (SCREENS as string[]).includes(name) ? (name as Screen) : 'devices';
}

export function App() {
  const [screen, setScreen] = useState<Screen>(screen_from_hash());
  const [linkedResult, setLinkedResult] = useState<string | null>(result_id_of_hash(location.hash));
  const [version, setVersion] = useState<string | null>(null);
  const [versionError, setVersionError] = useState<string | null>(null);
  const [socket, setSocket] = useState<SocketState>({ kind: 'connecting' });
  const [devices, setDevices] = useState<PCIeDevice[] | null>(null);
  const [devicesError, setDevicesError] = useState<string | null>(null);
  // null until the first queue push: the service pushes nothing while idle.
  const [queue, setQueue] = useState<QueuedTest[] | null>(null);
  const [finished, setFinished] = useState<FinishedTest[]>([]);
  const [pushNote, setPushNote] = useState<string | null>(null);
  // A device picked on the device screen; seq makes a second pick of the same device count.
  const [chosen, setChosen] = useState({ sbdf: '', seq: 0 });
  const [resultsGeneration, setResultsGeneration] = useState(0);
  // The time left shown for each running test, so a new estimate is steadied against it.
  const etaShown = useRef(new Map<number, number | null>());
  // Port status and link control pushes go straight to their screens, each in order.
  const linkHub = useRef(new LinkPushHub()).current;

  useEffect(() => {
    const onHash = () => {
      setScreen(screen_from_hash());
      setLinkedResult(result_id_of_hash(location.hash));
    };
    window.addEventListener('hashchange', onHash);
    return () => window.removeEventListener('hashchange', onHash);
  }, []);

  const loadDevices = () => {
    setDevicesError(null);
    get_pcie_devices()
      .then(setDevices)
      .catch((e: Error) => setDevicesError(e.message));
  };

  useEffect(() => {
    get_version()
      .then(setVersion)
      .catch((e: Error) => setVersionError(e.message));
    loadDevices();
  }, []);

  useEffect(() => {
    const live = new LiveSocket(
      socket_url(location),
      (text) => {
        const push = parse_push(text);
        if (push.kind === 'tests') {
          const steadied = steady_queue(push.tests, etaShown.current);
          etaShown.current = steadied.shown;
          if (push.finished.length > 0) {
            const at = new Date().toLocaleTimeString();
            setFinished((old) => merge_finished(old, push.finished, at));
            setResultsGeneration((g) => g + 1);
          }
          setQueue(steadied.tests);
        } else if (push.kind === 'links') {
          linkHub.emit(push.push);
        } else if (push.kind === 'download') {
          setPushNote(push.msg);
        } else if (push.kind === 'invalid') {
          setPushNote(`A message from the service could not be read: ${push.reason}.`);
        }
      },
      (state) => {
        setSocket(state);
        // A queue seen before the drop may be stale; the service pushes it again
        // on its next pass if anything is still queued or running.
        if (state.kind === 'down') {
          etaShown.current = new Map();
          setQueue(null);
        }
      },
    );
    live.open();
    return () => live.close();
  }, []);

  const go = (next: Screen) => {
    location.hash = next;
  };

  return (
    <div class="page">
      <Header
        version={version}
        versionError={versionError}
        socket={socket}
        screen={screen}
        queueCount={queue?.length ?? 0}
      />
      <main class="content">
        {/* Every screen stays mounted so a form or a chosen result survives a
            look at another screen. */}
        <section hidden={screen !== 'devices'}>
          <DevicesView
            devices={devices}
            error={devicesError}
            onReload={loadDevices}
            onNewTest={(sbdf) => {
              setChosen((old) => ({ sbdf, seq: old.seq + 1 }));
              go('new');
            }}
          />
        </section>
        <section hidden={screen !== 'new'}>
          <NewTestView devices={devices} error={devicesError} chosen={chosen} />
        </section>
        <section hidden={screen !== 'hvl'}>
          <HvlView />
        </section>
        <section hidden={screen !== 'eye'}>
          <EyeView />
        </section>
        <section hidden={screen !== 'queue'}>
          <QueueView queue={queue} finished={finished} note={pushNote} />
        </section>
        <section hidden={screen !== 'results'}>
          <ResultsView generation={resultsGeneration} visible={screen === 'results'} linked={linkedResult} />
        </section>
        <section hidden={screen !== 'ports'}>
          <PortStatusView hub={linkHub} visible={screen === 'ports'} />
        </section>
        <section hidden={screen !== 'links'}>
          <LinkControlView hub={linkHub} visible={screen === 'links'} />
        </section>
        <section hidden={screen !== 'pci'}>
          <PciViewerView visible={screen === 'pci'} />
        </section>
        <section hidden={screen !== 'aspm'}>
          <AspmView visible={screen === 'aspm'} />
        </section>
        <section hidden={screen !== 'counters'}>
          <CountersView visible={screen === 'counters'} />
        </section>
      </main>
    </div>
  );
}
