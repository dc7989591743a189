import { render } from 'preact';
import 'uplot/dist/uPlot.min.css';
import './styles.css';
import { App } from './App';

render(<App />, document.getElementById('app')!);
